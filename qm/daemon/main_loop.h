// The daemon's start-up sequence and its endless main loop: serve the
// request pipe until it is quiet, then one scheduling phase (global
// resources, the admin queue, every queue triple), and again.
#pragma once

extern char gszKeldaDay[256];  ///< business day of the current trace and exit log

/// Start-up and the endless main loop; ends the process through exit.
[[noreturn]] void vMainLoop(int argc, char** argv);

/// Switches trace log and exit log when the business day (gv_date, or today)
/// differs from gszKeldaDay. Called before every read of the request pipe.
void SetLogFile();
