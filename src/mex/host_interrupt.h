// Ctrl-C in the MEX hosts, for the gateways. Include after mex.h (which
// tells Octave from MATLAB).
#ifndef SHAPEWIENER_MEX_HOST_INTERRUPT_H
#define SHAPEWIENER_MEX_HOST_INTERRUPT_H

#if defined(octave_mex_h)
#include <octave/quit.h>
#elif defined(MATLAB_MEX_FILE) && !defined(SHAPEWIENER_NO_MATLAB_INTERRUPT)
// MATLAB's query for a pending Ctrl-C, in libut, which the build links.
extern "C" bool utIsInterruptPending(void);
#endif

namespace swmex {

// Whether the user asked the host to stop the running command (Ctrl-C).
inline bool interrupt_requested() {
#if defined(octave_mex_h)
    return octave_signal_caught != 0;
#elif defined(MATLAB_MEX_FILE) && !defined(SHAPEWIENER_NO_MATLAB_INTERRUPT)
    return utIsInterruptPending();
#else
    return false;
#endif
}

// Hands the user's interrupt back to the host, which ends the command the
// way Ctrl-C does; returns only on hosts that offer no such way.
inline void pass_interrupt_on() {
#if defined(octave_mex_h)
    octave_quit();
#endif
}

}  // namespace swmex

#endif  // SHAPEWIENER_MEX_HOST_INTERRUPT_H
