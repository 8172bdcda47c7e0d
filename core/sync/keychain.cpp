#include "core/sync/keychain.h"

#include "core/sync/keychain_stores.h"

namespace mirel::Keychain {

std::optional<std::string> read(const std::string& account) {
    if (SecretServiceStore::answers()) return SecretServiceStore::read(account);
    return FileSecretStore::read(account);
}

void write(const std::string& value, const std::string& account) {
    if (SecretServiceStore::answers()) {
        // Once the secret store holds it, no copy stays behind in a file.
        if (SecretServiceStore::write(value, account)) FileSecretStore::remove(account);
        return;
    }
    FileSecretStore::write(value, account);
}

void remove(const std::string& account) {
    if (SecretServiceStore::answers()) SecretServiceStore::remove(account);
    FileSecretStore::remove(account);
}

}  // namespace mirel::Keychain
