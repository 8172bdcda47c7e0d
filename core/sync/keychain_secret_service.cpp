// The secret store of a desktop session: the Secret Service over D-Bus, through libsecret.
#include "core/sync/keychain.h"
#include "core/sync/keychain_stores.h"

#include "core/platform/text.h"

#include <libsecret/secret.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

namespace mirel::SecretServiceStore {

namespace {

constexpr const char* secretServiceName = "org.freedesktop.secrets";
// Long enough for the user to answer an unlock prompt, short enough that a
// service that never answers does not hold sign-in up for good.
constexpr auto answerLimit = std::chrono::seconds(60);
constexpr int probeMilliseconds = 2000;

// Items are found by service and account, as on every platform Mirel runs on.
const SecretSchema* tokenSchema() {
    static const SecretSchema schema = [] {
        SecretSchema made{};
        made.name = "dev.mirel.Mirel";
        made.flags = SECRET_SCHEMA_NONE;
        made.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
        made.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return made;
    }();
    return &schema;
}

struct GObjectDeleter {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct ErrorDeleter {
    void operator()(GError* error) const { g_error_free(error); }
};
struct VariantDeleter {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
struct SecretValueDeleter {
    void operator()(SecretValue* value) const { secret_value_unref(value); }
};

// A GCancellable that fires by itself once `limit` has passed.
class Deadline {
public:
    explicit Deadline(std::chrono::seconds limit)
        : cancellable_(g_cancellable_new()), watcher_([this, limit] {
              std::unique_lock lock(mutex_);
              if (!done_.wait_for(lock, limit, [this] { return finished_; })) g_cancellable_cancel(cancellable_.get());
          }) {}
    ~Deadline() {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        done_.notify_all();
        watcher_.join();
    }
    GCancellable* get() const { return cancellable_.get(); }

private:
    std::unique_ptr<GCancellable, GObjectDeleter> cancellable_;
    std::mutex mutex_;
    std::condition_variable done_;
    bool finished_ = false;  // guarded by mutex_
    std::thread watcher_;
};

// The session bus as GLib would find it, without its fallback of launching one.
std::optional<std::string> sessionBusAddress() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return address;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) return std::nullopt;
    const std::string socketPath = std::string(runtime) + "/bus";
    struct stat info {};
    if (::stat(socketPath.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return std::nullopt;
    return "unix:path=" + socketPath;
}

// The library's shared connection ends the process when the bus goes away,
// unless told otherwise; a lost keyring must not take the host with it.
std::unique_ptr<SecretService, GObjectDeleter> connectedService(GCancellable* cancellable) {
    GError* rawError = nullptr;
    std::unique_ptr<SecretService, GObjectDeleter> service(
        secret_service_get_sync(SECRET_SERVICE_NONE, cancellable, &rawError));
    std::unique_ptr<GError, ErrorDeleter> error(rawError);
    if (service) g_dbus_connection_set_exit_on_close(g_dbus_proxy_get_connection(G_DBUS_PROXY(service.get())), FALSE);
    return service;
}

// Drops libsecret's shared proxy so that the next call finds the bus anew.
struct ServiceSession {
    Deadline deadline{answerLimit};
    std::unique_ptr<SecretService, GObjectDeleter> service = connectedService(deadline.get());
    ~ServiceSession() {
        service.reset();
        secret_service_disconnect();
    }
};

}  // namespace

bool answers() {
    const auto address = sessionBusAddress();
    if (!address) return false;
    Deadline deadline(std::chrono::seconds(probeMilliseconds / 1000));
    GError* rawError = nullptr;
    std::unique_ptr<GDBusConnection, GObjectDeleter> bus(g_dbus_connection_new_for_address_sync(
        address->c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, deadline.get(), &rawError));
    std::unique_ptr<GError, ErrorDeleter> error(rawError);
    if (!bus) return false;
    std::unique_ptr<GVariant, VariantDeleter> reply(
        g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "NameHasOwner", g_variant_new("(s)", secretServiceName), G_VARIANT_TYPE("(b)"),
                                    G_DBUS_CALL_FLAGS_NONE, probeMilliseconds, deadline.get(), &rawError));
    error.reset(rawError);
    gboolean owned = FALSE;
    if (reply) g_variant_get(reply.get(), "(b)", &owned);
    g_dbus_connection_close_sync(bus.get(), nullptr, nullptr);
    return owned;
}

std::optional<std::string> read(const std::string& account) {
    ServiceSession session;
    if (!session.service) return std::nullopt;
    GError* rawError = nullptr;
    std::unique_ptr<SecretValue, SecretValueDeleter> value(
        secret_password_lookup_binary_sync(tokenSchema(), session.deadline.get(), &rawError, "service",
                                           Keychain::service, "account", account.c_str(), nullptr));
    std::unique_ptr<GError, ErrorDeleter> error(rawError);
    if (!value) return std::nullopt;
    gsize length = 0;
    const gchar* bytes = secret_value_get(value.get(), &length);
    std::string text(bytes ? bytes : "", bytes ? length : 0);
    if (repairUTF8(text) != text) return std::nullopt;
    return text;
}

bool write(const std::string& value, const std::string& account) {
    ServiceSession session;
    if (!session.service) return false;
    GError* rawError = nullptr;
    // Storing under the same attributes replaces the item: one item per account.
    const gboolean stored = secret_password_store_sync(tokenSchema(), SECRET_COLLECTION_DEFAULT, "Mirel sync session",
                                                       value.c_str(), session.deadline.get(), &rawError, "service",
                                                       Keychain::service, "account", account.c_str(), nullptr);
    std::unique_ptr<GError, ErrorDeleter> error(rawError);
    return stored;
}

void remove(const std::string& account) {
    ServiceSession session;
    if (!session.service) return;
    GError* rawError = nullptr;
    secret_password_clear_sync(tokenSchema(), session.deadline.get(), &rawError, "service", Keychain::service,
                               "account", account.c_str(), nullptr);
    std::unique_ptr<GError, ErrorDeleter> error(rawError);
}

}  // namespace mirel::SecretServiceStore
