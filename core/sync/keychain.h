#pragma once
// Keychain: where the session token outlives the process.
//
// With a Secret Service on the session bus (GNOME Keyring, KWallet, KeePassXC)
// the item lives there, under service "dev.mirel.Mirel" and the account's
// name. Without one, it is a file $XDG_CONFIG_HOME/mirel/{account} (by default
// ~/.config/mirel/), mode 0600 in a 0700 folder, replaced atomically.
//
// None of the three operations reports failure: a token that can't be saved
// lasts until the process ends, and one that can't be read is no session.
// Blocking; a Secret Service that does not answer is given up after a minute.
#include <optional>
#include <string>

namespace mirel::Keychain {

inline constexpr const char* service = "dev.mirel.Mirel";

// The value stored for `account`; absent when there is none, it can't be
// read, or it isn't valid UTF-8.
std::optional<std::string> read(const std::string& account);

// Replaces the value of `account`, or adds it.
void write(const std::string& value, const std::string& account);

// Removes `account` from every place it could be kept.
void remove(const std::string& account);

}  // namespace mirel::Keychain
