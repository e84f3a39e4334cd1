#pragma once

#include "SignalForwarder.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

// The tools stop on signals the way the service does: every signal given means stop, passed on
// as SIGTERM to the SignalForwarder (made before install()), whose stopRequested comes on the
// event loop; stopAsked serves code that runs before the loop does.
namespace StopSignals {

inline std::atomic<bool> stopAsked{false};

inline void install(std::initializer_list<int> signalNumbers)
{
    struct sigaction action {};
    action.sa_handler = [](int) {
        stopAsked = true;
        SignalForwarder::handleSignal(SIGTERM);
    };
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signalNumber : signalNumbers)
        ::sigaction(signalNumber, &action, nullptr);
}

} // namespace StopSignals
