#pragma once

// "update --check [CLIENT_TYPE]": asks for the current version as a run would, compares it with
// the installed one and prints one line; downloads and changes nothing and needs no display.
// The exit status: 0 up to date, 10 an update is available, 1 it cannot tell.
int runVersionCheck(int argc, char **argv);
