#pragma once

#include <QString>

// The installation root: the directory of the running program, without a trailing "/".
QString getAppRootPath();

// File name of the client executable inside the installation root.
QString getClientBinaryName();
