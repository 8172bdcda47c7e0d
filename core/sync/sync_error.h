#pragma once
// The errors of the sync side's network calls.
#include <cstdint>
#include <stdexcept>
#include <string>

namespace mirel {

// A failed call to the API server, in the five cases a user can be told about.
class SyncError : public std::runtime_error {
public:
    enum class Kind { offline, server, unauthorized, decode, uploadsDisabled };

    // The server could not be reached, or the call broke off, timed out or was cancelled.
    static SyncError offline(const std::string& reason);
    // The server answered with a failure status, or storage refused a transfer.
    static SyncError server(std::int64_t code, const std::string& message);
    static SyncError unauthorized();
    static SyncError decode();
    static SyncError uploadsDisabled();

    Kind kind() const { return kind_; }
    // The status of `server`; 0 otherwise.
    std::int64_t code() const { return code_; }
    // The reason of `offline` or the message of `server`; empty otherwise.
    const std::string& detail() const { return detail_; }

private:
    SyncError(Kind kind, std::int64_t code, std::string detail, const std::string& text);
    Kind kind_;
    std::int64_t code_;
    std::string detail_;
};

// How a device sign-in ends without a token.
class SignInError : public std::runtime_error {
public:
    enum class Kind { denied, expired };
    explicit SignInError(Kind kind);
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

// A transfer that failed on the way: no connection, a broken or silent one, a
// time limit, a cancellation, a reply too large to hold. The API calls turn it
// into SyncError::offline; the direct transfers to and from storage pass it on
// as it is, so a caller can tell a lost server from one image's trouble.
class TransferError : public std::runtime_error {
public:
    enum class Kind { failed, cancelled, tooLarge, notHTTP };
    TransferError(Kind kind, const std::string& description) : std::runtime_error(description), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

}  // namespace mirel
