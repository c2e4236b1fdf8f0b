#include "platform/banner.h"

#include <cstdio>

void printProgramBanner() { std::puts("kavophoto_backup " KAVOPHOTO_VERSION); }
