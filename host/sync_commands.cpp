// The sync commands of `mirel`: sign in, sync once, keep syncing, show the
// state of sync, choose the default workspace, move local captures into a
// workspace, sign out. MIREL_API_URL names the server (default
// http://127.0.0.1:8787, where mirel-server listens by default).
#include "core/platform/text.h"
#include "host/arguments.h"
#include "host/change_listener.h"
#include "host/commands.h"
#include "host/progress.h"
#include "host/sync_host.h"
#include "host/watch_service.h"

#include <asio/post.hpp>
#include <asio/signal_set.hpp>

#include <csignal>
#include <ctime>
#include <iostream>

namespace mirel::host {

const char* const signinUsage =
    "usage: mirel signin\n"
    "\n"
    "Signs this library in to the sync server: shows a code and a link, waits\n"
    "until the code is approved in a browser, then prints the account and its\n"
    "workspaces. New captures go to the default workspace from then on.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

const char* const syncUsage =
    "usage: mirel sync\n"
    "\n"
    "Sends what changed here and fetches what changed elsewhere, once, and\n"
    "prints the outcome. Exits with 1 when the server can't be reached, the run\n"
    "fails, the session has expired, or this library isn't signed in.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

const char* const watchUsage =
    "usage: mirel watch\n"
    "\n"
    "Keeps the library in sync until interrupted: a run every 30 seconds, one\n"
    "2 seconds after a local change (by `mirel add` or an agent through\n"
    "mirel-mcp), and one when another device changes something. Prints each\n"
    "change of the sync status on a line of its own.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

const char* const statusUsage =
    "usage: mirel status\n"
    "\n"
    "Shows the account, the default workspace, the last sync, what waits to be\n"
    "sent and the latest lines of the sync log.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

const char* const workspaceUsage =
    "usage: mirel workspace [WORKSPACE]\n"
    "\n"
    "Lists the account's workspaces, marking the default with \"*\". With\n"
    "WORKSPACE (an id or a slug), makes it the default: where new captures go.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

const char* const adoptUsage =
    "usage: mirel adopt [ID...] [--into WORKSPACE]\n"
    "\n"
    "Moves captures filed before signing in into a workspace, so that they\n"
    "sync: the given ones (ids or unique beginnings), or else all of them.\n"
    "Then syncs, when signed in.\n"
    "\n"
    "options:\n"
    "  --into WORKSPACE    an id or a slug (default: the default workspace)\n"
    "  -h, --help          show this help\n";

const char* const signoutUsage =
    "usage: mirel signout\n"
    "\n"
    "Signs this library out and removes what came with the account. Captures\n"
    "filed on this device without a workspace stay.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

namespace {

// Parses a command that takes no options; false when only help was asked for.
bool parseBare(const Arguments& arguments, const char* usage, std::size_t maxOperands = 0,
               std::vector<std::string>* operands = nullptr) {
    const ParsedArguments parsed = parseArguments(arguments, {});
    if (parsed.help) {
        std::cout << usage;
        return false;
    }
    if (parsed.operands.size() > maxOperands) throw UsageError("unexpected argument \"" + parsed.operands.back() + "\"");
    if (operands) *operands = parsed.operands;
    return true;
}

std::string localTime(Date date) {
    const std::time_t seconds = static_cast<std::time_t>(date);
    std::tm parts{};
    char text[32] = "?";
    if (localtime_r(&seconds, &parts)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

void printWorkspaces(CaptureStore& store) {
    const auto chosen = store.defaultWorkspaceID();
    for (const Workspace& workspace : store.workspaces()) {
        std::cout << (workspace.id == chosen ? "* " : "  ") << workspace.name << " (" << workspace.slug << ", "
                  << workspace.role << ")  " << workspace.id << '\n';
    }
}

// A workspace by its id or its slug.
std::optional<Workspace> findWorkspace(CaptureStore& store, const std::string& text) {
    for (const Workspace& workspace : store.workspaces()) {
        if (workspace.id == text || workspace.slug == text) return workspace;
    }
    return std::nullopt;
}

int notSignedIn(std::string_view command) {
    std::cerr << "mirel " << command << ": not signed in; run 'mirel signin' first\n";
    return exitFailure;
}

// The outcome of a run: exit 0 when it ended idle.
int reportRun(std::string_view command, const SyncStatus& status) {
    if (status.is<SyncStatus::Idle>()) {
        std::cout << status.description() << '\n';
        return exitOK;
    }
    std::cerr << "mirel " << command << ": " << status.description() << '\n';
    return exitFailure;
}

// Intervals for the end-to-end tests: "--intervals PAUSE,DEBOUNCE,RECONNECT"
// in milliseconds. Not shown in the help.
SyncIntervals parseIntervals(const std::string& text) {
    std::vector<long long> values;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        values.push_back(parseInteger("intervals", text.substr(start, comma - start), 1, 3'600'000));
        start = comma + 1;
    }
    if (values.size() != 3) throw UsageError("--intervals takes PAUSE,DEBOUNCE,RECONNECT in milliseconds");
    SyncIntervals intervals;
    intervals.pause = std::chrono::milliseconds(values[0]);
    intervals.debounce = std::chrono::milliseconds(values[1]);
    intervals.reconnect = std::chrono::milliseconds(values[2]);
    return intervals;
}

}  // namespace

int runSignin(const Arguments& arguments) {
    if (!parseBare(arguments, signinUsage)) return exitOK;
    return withSyncHost("signin", [](SyncHost& host) {
        SyncEngine& engine = host.engine();
        Progress progress;
        std::optional<AccountInfo> account;
        try {
            host.run([&]() -> asio::awaitable<void> {
                const DeviceCode code = co_await engine.beginSignIn();
                std::cout << "To sign in, open this page in a browser and enter the code:\n\n"
                          << "    " << code.verificationURI << "\n"
                          << "    Code: " << code.userCode << "\n\n"
                          << "or open this link, which has the code filled in:\n\n"
                          << "    " << code.verificationURIComplete << "\n\n"
                          << "Waiting for the browser…" << std::endl;
                account = co_await engine.completeSignIn(code);
                // Signing in starts syncing; the first run is let finish, and
                // the rest is for `mirel sync` and `mirel watch`.
                if (!engine.status().is<SyncStatus::Syncing>()) {
                    engine.stop();
                    co_return;
                }
                engine.onStatus([&](const SyncStatus& status) {
                    if (status.is<SyncStatus::Syncing>()) {
                        progress.show("First sync: " + status.description());
                        return;
                    }
                    progress.clear();
                    engine.onStatus(nullptr);
                    engine.stop();
                });
            });
        } catch (const SignInError& error) {
            std::cerr << "mirel signin: " << error.what() << '\n';
            return exitFailure;
        } catch (const SyncError& error) {
            std::cerr << "mirel signin: " << error.what() << '\n';
            return exitFailure;
        }
        const Person& user = account->user;
        std::cout << "Signed in as " << user.name << (user.email ? " (" + *user.email + ")" : "") << ".\n";
        if (account->workspaces.empty()) {
            std::cout << "The account has no workspaces yet.\n";
        } else {
            std::cout << "Workspaces (* is where new captures go):\n";
            printWorkspaces(host.store());
        }
        std::cout << "First sync: " << engine.status().description() << '\n';
        return exitOK;
    });
}

int runSync(const Arguments& arguments) {
    if (!parseBare(arguments, syncUsage)) return exitOK;
    return withSyncHost("sync", [](SyncHost& host) {
        SyncEngine& engine = host.engine();
        if (!engine.isSignedIn()) return notSignedIn("sync");
        Progress progress;
        host.run([&]() -> asio::awaitable<void> {
            engine.onStatus([&progress](const SyncStatus& status) { progress.show(status.description()); });
            co_await engine.syncNow();
            engine.onStatus(nullptr);
        });
        progress.clear();
        const int status = reportRun("sync", engine.status());
        if (const std::string waiting = waitingToBeSent(host.store()); !waiting.empty()) {
            std::cout << "Still waiting to be sent: " << waiting << '\n';
        }
        return status;
    });
}

int runWatch(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, {{"intervals"}});
    if (parsed.help) {
        std::cout << watchUsage;
        return exitOK;
    }
    if (!parsed.operands.empty()) throw UsageError("unexpected argument \"" + parsed.operands.front() + "\"");
    const SyncIntervals intervals = parsed.value("intervals") ? parseIntervals(*parsed.value("intervals")) : SyncIntervals{};
    return withSyncHost(
        "watch",
        [](SyncHost& host) {
            SyncEngine& engine = host.engine();
            if (!engine.isSignedIn()) {
                notSignedIn("watch");
                return exitNeedsSignIn;
            }
            // The status handler and the signal handler use these after the
            // coroutine below has returned: they live here, not in its frame.
            bool expired = false;
            std::optional<SyncStatus> shown;
            std::unique_ptr<ChangeListener> listener;
            asio::signal_set signals(host.loop(), SIGINT, SIGTERM);
            const auto finish = [&] {
                engine.stop();
                if (listener) listener->close();
                signals.cancel();
            };
            signals.async_wait([&](const std::error_code& error, int) {
                if (!error) asio::post(engine.executor(), finish);
            });
            host.run([&]() -> asio::awaitable<void> {
                engine.onStatus([&](const SyncStatus& status) {
                    if (shown == status) return;
                    shown = status;
                    std::cout << status.description() << std::endl;
                    if (status.is<SyncStatus::SessionExpired>()) {
                        expired = true;
                        finish();
                    }
                });
                listener = ChangeListener::open(engine.executor(), [&engine] { engine.noteLocalChange(); });
                if (!listener) {
                    std::cerr << "mirel watch: no session bus; local changes go out with the periodic run\n";
                }
                engine.start();
                co_return;
            });
            // The engine outlives this frame; nothing it does later may reach it.
            engine.onStatus(nullptr);
            return expired ? exitNeedsSignIn : exitOK;
        },
        intervals);
}

int runStatus(const Arguments& arguments) {
    if (!parseBare(arguments, statusUsage)) return exitOK;
    return withSyncHost("status", [](SyncHost& host) {
        CaptureStore& store = host.store();
        SyncEngine& engine = host.engine();
        if (engine.isSignedIn()) {
            const auto name = store.currentUserName();
            const auto email = store.syncMeta("user_email");
            std::cout << "Signed in as " << name.value_or("?") << (email ? " (" + *email + ")" : "") << " at "
                      << engine.baseURL() << '\n';
        } else {
            std::cout << "Not signed in (server " << engine.baseURL() << ")\n";
        }
        if (const auto workspace = defaultWorkspace(store)) {
            std::cout << "Default workspace: " << workspace->name << " (" << workspace->slug << ")\n";
        } else {
            std::cout << "Default workspace: none\n";
        }
        std::cout << "Background sync (mirel-watch.service): " << (watchServiceActive() ? "running" : "not running")
                  << '\n';
        std::cout << "Last sync: " << (engine.lastSync() ? localTime(*engine.lastSync()) : "never") << '\n';
        const std::string waiting = waitingToBeSent(store);
        std::cout << "Waiting to be sent: " << (waiting.empty() ? "nothing" : waiting) << '\n';
        const auto lines = store.syncLog(10);
        if (!lines.empty()) {
            std::cout << "Sync log, latest first:\n";
            for (const auto& line : lines) {
                std::cout << "  " << localTime(line.at) << "  " << line.level << "  " << line.message << '\n';
            }
        }
        return exitOK;
    });
}

int runWorkspace(const Arguments& arguments) {
    std::vector<std::string> operands;
    if (!parseBare(arguments, workspaceUsage, 1, &operands)) return exitOK;
    return withSyncHost("workspace", [&operands](SyncHost& host) {
        CaptureStore& store = host.store();
        if (store.workspaces().empty()) {
            std::cerr << "mirel workspace: no workspaces; sign in with 'mirel signin' first\n";
            return exitFailure;
        }
        if (!operands.empty()) {
            const auto workspace = findWorkspace(store, operands.front());
            if (!workspace) {
                std::cerr << "mirel workspace: no workspace \"" << operands.front() << "\"; these are yours:\n";
                printWorkspaces(store);
                return exitFailure;
            }
            host.engine().setDefaultWorkspace(workspace->id);
        }
        printWorkspaces(store);
        return exitOK;
    });
}

int runAdopt(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, {{"into"}});
    if (parsed.help) {
        std::cout << adoptUsage;
        return exitOK;
    }
    return withSyncHost("adopt", [&parsed](SyncHost& host) {
        CaptureStore& store = host.store();
        SyncEngine& engine = host.engine();
        const auto workspace =
            parsed.value("into") ? findWorkspace(store, *parsed.value("into")) : defaultWorkspace(store);
        if (!workspace) {
            std::cerr << "mirel adopt: "
                      << (parsed.value("into") ? "no workspace \"" + *parsed.value("into") + "\"; see 'mirel workspace'"
                                               : std::string("no default workspace; sign in first, or give --into"))
                      << '\n';
            return exitFailure;
        }
        std::optional<std::vector<std::string>> ids;
        if (!parsed.operands.empty()) {
            ids.emplace();
            for (const std::string& text : parsed.operands) {
                const auto id = store.resolveCaptureID(text);
                if (!id) {
                    std::cerr << "mirel adopt: no capture matches \"" << text << "\"\n";
                    return exitFailure;
                }
                ids->push_back(*id);
            }
        }
        const std::size_t before = store.localCaptures().size();
        host.run([&]() -> asio::awaitable<void> { co_await engine.adoptLocalCaptures(workspace->id, ids); });
        const std::size_t moved = before - std::min(before, store.localCaptures().size());
        std::cout << "Moved " << moved << (moved == 1 ? " capture" : " captures") << " into " << workspace->name
                  << ".\n";
        if (!engine.isSignedIn()) {
            std::cout << "Not signed in: they go out after 'mirel signin'.\n";
            return exitOK;
        }
        return reportRun("adopt", engine.status());
    });
}

int runSignout(const Arguments& arguments) {
    if (!parseBare(arguments, signoutUsage)) return exitOK;
    return withSyncHost("signout", [](SyncHost& host) {
        SyncEngine& engine = host.engine();
        host.run([&]() -> asio::awaitable<void> { co_await engine.signOut(); });
        std::cout << "Signed out. Captures filed on this device stay in the library.\n";
        return exitOK;
    });
}

}  // namespace mirel::host
