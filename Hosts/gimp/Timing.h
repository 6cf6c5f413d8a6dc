// Where a call of the plug-in spends its time: with QV_GIMP_TIMING=1 in GIMP's environment, each
// step of a run prints to stderr its end time since the process started (as the kernel counts
// it, so that GIMP's start of the process shows too), its own duration and the CPU time the
// plug-in's threads spent in it (the rest of the duration is waiting: for GIMP, or for the CPU).
#pragma once

namespace qvgimp {

// True when QV_GIMP_TIMING is set to something other than "0".
bool timingEnabled();

// Prints "qvfilter-gimp: <step> <seconds since the previous mark>, CPU <seconds> (at <seconds
// since start>), peak RSS <MB>" (the most memory the process has held so far) when timing is
// enabled; does nothing otherwise.
void timingMark(const char* step);

}  // namespace qvgimp
