#pragma once
// A payload-free "the library changed" signal to every process of the user.
// On Linux it is a D-Bus session-bus signal: interface dev.mirel.store, member
// didChange, on object path /dev/mirel/store. Without a session bus it does
// nothing, and it never raises.

namespace mirel::ChangeSignal {

inline constexpr const char* name = "dev.mirel.store.didChange";
inline constexpr const char* interface = "dev.mirel.store";
inline constexpr const char* member = "didChange";
inline constexpr const char* objectPath = "/dev/mirel/store";

void post();

}  // namespace mirel::ChangeSignal
