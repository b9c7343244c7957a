#pragma once

// The process-wide pseudo-random sequence. Its seed is fixed, so the sequence, and with it the
// random choice of mirrors, is the same on every run.

// Restarts the sequence from the fixed seed; start-up calls it once.
void seedRandomGenerator();

// The next number of the sequence, from 0 to 2147483647.
int randomNumber();
