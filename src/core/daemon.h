// The daemon's whole life: start-up, then the boot cycle for ever.
#pragma once

// Returns -22 when the command line is refused and 0 after a one-shot boot;
// in daemon mode it never returns.
int rix_main(int argc, char** argv);
