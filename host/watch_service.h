#pragma once
// The background sync service: a systemd user unit that runs `mirel watch`.
namespace mirel::host {

inline constexpr const char* watchServiceName = "mirel-watch.service";

// Whether the user's service manager reports the unit as active. False when
// systemctl is missing, no user manager answers, or the unit is not running.
bool watchServiceActive();

}  // namespace mirel::host
