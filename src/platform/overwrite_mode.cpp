#include "platform/overwrite_mode.h"

bool gIsOverwiroteMode = false;
