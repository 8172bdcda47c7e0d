#pragma once
// The two places Keychain keeps secrets; chosen per call by whether a Secret
// Service answers on the session bus.
#include <optional>
#include <string>

namespace mirel::SecretServiceStore {

// True when the session bus is reachable and a Secret Service owns its name
// there. Never starts a bus or a service.
bool answers();
std::optional<std::string> read(const std::string& account);
// False when the item could not be stored.
bool write(const std::string& value, const std::string& account);
void remove(const std::string& account);

}  // namespace mirel::SecretServiceStore

namespace mirel::FileSecretStore {

std::optional<std::string> read(const std::string& account);
void write(const std::string& value, const std::string& account);
void remove(const std::string& account);

}  // namespace mirel::FileSecretStore
