#pragma once

// The tool's one global flag: false is skip mode (what is live is kept), true is overwrite mode (the source wins). Set
// while the options are parsed and only read afterwards.
extern bool gIsOverwiroteMode;
