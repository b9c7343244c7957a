#pragma once

#include <QString>

#include <functional>

// What to do about a file that could not be installed.
enum class InstallAnswer { Abort, Retry, Ignore };

// Asks a person what to do about a file that could not be installed; text says which and why.
// The window shows a box; a run without one answers Abort, so no version with holes stands.
using InstallQuestion = std::function<InstallAnswer(const QString &text)>;
