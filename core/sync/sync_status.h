#pragma once
// What the user sees of the sync engine: one status at a time.
#include "core/platform/clock.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace mirel {

class SyncStatus {
public:
    struct Idle {  // signed in, nothing going on
        std::optional<Date> lastSync;
        bool operator==(const Idle&) const = default;
    };
    struct Offline {  // the last run failed to reach the server
        std::string reason;
        bool operator==(const Offline&) const = default;
    };
    struct Failed {  // the last run failed otherwise
        std::string message;
        bool operator==(const Failed&) const = default;
    };
    struct SignedOut {  // no session
        bool operator==(const SignedOut&) const = default;
    };
    struct Syncing {  // a run is going on
        bool operator==(const Syncing&) const = default;
    };
    struct SessionExpired {  // the server rejected the session; the token is gone
        bool operator==(const SessionExpired&) const = default;
    };
    using Value = std::variant<Idle, Offline, Failed, SignedOut, Syncing, SessionExpired>;

    SyncStatus(Value value) : value_(std::move(value)) {}  // NOLINT: a status is its case

    static SyncStatus idle(std::optional<Date> lastSync) { return Value(Idle{lastSync}); }
    static SyncStatus offline(std::string reason) { return Value(Offline{std::move(reason)}); }
    static SyncStatus failed(std::string message) { return Value(Failed{std::move(message)}); }
    static SyncStatus signedOut() { return Value(SignedOut{}); }
    static SyncStatus syncing() { return Value(Syncing{}); }
    static SyncStatus sessionExpired() { return Value(SessionExpired{}); }

    const Value& value() const { return value_; }
    template <typename Case>
    bool is() const { return std::holds_alternative<Case>(value_); }

    // True for every case but signedOut: an expired session still counts.
    bool isSignedIn() const { return !is<SignedOut>(); }
    // The case's name: "idle", "offline", "failed", "signedOut", "syncing",
    // "sessionExpired".
    std::string_view name() const;
    // One line for people, such as "Up to date (last sync 2025-05-01 14:03:07)"
    // or "Offline: Couldn't connect to server".
    std::string description() const;

    bool operator==(const SyncStatus&) const = default;

private:
    Value value_;
};

}  // namespace mirel
