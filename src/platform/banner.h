#pragma once

// Prints the program's name and version as one line on standard output.
void printProgramBanner();
