#pragma once
// SyncEngine: the one object that moves a library's changes to and from the
// API server. It owns the SyncClient, decides when a run happens, keeps the
// status the user sees, and looks after the account's life on this device.
//
// Its state lives on one serial executor (a strand of the host's event loop):
// every member below is called there, and its tasks interleave only where
// they wait, at a sleep or a network call. Network calls block a thread of
// the engine's small pool and are awaited; `stop` ends every such wait.
//
// Defined by concern:
//   sync_engine.cpp        creation, status, scheduling, runOnce, account refresh
//   sync_cycle.cpp         one exchange with the server and its verdicts
//   image_transfer.cpp     blob upload before a push, downloads after a pull
//   live_events.cpp        the event stream that brings runs forward
//   account_lifecycle.cpp  sign-in, sign-out, adoption and the daily reconcile
#include "core/store/capture_store.h"
#include "core/sync/cancellation.h"
#include "core/sync/run_scheduler.h"
#include "core/sync/serial_tasks.h"
#include "core/sync/sync_client.h"
#include "core/sync/sync_status.h"

#include <asio/thread_pool.hpp>

#include <array>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

class SyncEngine : public std::enable_shared_from_this<SyncEngine> {
public:
    using StatusHandler = std::function<void(const SyncStatus&)>;

    // The API server's address when MIREL_API_URL is not set: mirel-server's default.
    static constexpr const char* builtInBaseURL = "http://127.0.0.1:8787";
    // MIREL_API_URL if it is set, else builtInBaseURL. Throws
    // std::invalid_argument when MIREL_API_URL is not an http or https URL.
    static std::string defaultBaseURL();

    // Reads the session token and the end of the last sync; the status is
    // idle with a token, signedOut without. Runs on a strand of `executor`.
    // `intervals` are shortened by tests only.
    static std::shared_ptr<SyncEngine> create(const asio::any_io_executor& executor, CaptureStore& store,
                                              const std::string& baseURL, std::string deviceName,
                                              std::optional<std::string> appVersion, SyncIntervals intervals = {});
    ~SyncEngine();
    SyncEngine(const SyncEngine&) = delete;
    SyncEngine& operator=(const SyncEngine&) = delete;

    const SerialExecutor& executor() const { return executor_; }
    CaptureStore& store() { return store_; }
    const std::string& baseURL() const { return client_.baseURL(); }
    const SyncStatus& status() const { return status_; }
    std::optional<Date> lastSync() const { return lastSync_; }
    // True when there is a session token, whatever the status says.
    bool isSignedIn() const { return client_.token().has_value(); }

    // Replaces the status handler and calls it at once with the status.
    void onStatus(StatusHandler handler);
    // Starts the periodic task and the event stream, unless signed out or
    // started already.
    void start();
    // Cancels the periodic task, the event stream and a debounced run. A run in
    // progress ends at its next wait.
    void stop();
    // Puts a run two seconds ahead, replacing one that was waiting.
    void noteLocalChange();
    // Runs now, or once more after the run in progress; returns when the runs
    // it drove are over, or at once.
    asio::awaitable<void> syncNow();

    // The code to show the user, and the link where it is entered.
    asio::awaitable<DeviceCode> beginSignIn();
    // Waits for the browser, stores the token, takes the account into the
    // library and starts the tasks. Throws SignInError (denied, expired),
    // SyncError, or operation_aborted when the calling task is cancelled.
    asio::awaitable<AccountInfo> completeSignIn(DeviceCode code);
    // Forgets the session and the account's data; local captures stay.
    asio::awaitable<void> signOut();
    // Where new captures go; none removes the choice.
    void setDefaultWorkspace(const std::optional<std::string>& id);
    // Moves the given captures (all local ones without `ids`) into the
    // workspace, then syncs.
    asio::awaitable<void> adoptLocalCaptures(const std::string& into,
                                             const std::optional<std::vector<std::string>>& ids);

    // ---- Image helpers; pure ----
    // The upload's type by the path's extension: jpg/jpeg, webp, else png.
    static std::string contentType(const std::string& path);
    struct ImageKind {
        std::string ext;
        std::string type;
        bool operator==(const ImageKind&) const = default;
    };
    // A downloaded file's kind by its first bytes; png when unknown.
    static ImageKind imageKind(std::span<const std::uint8_t> data);
    // Letters, digits, "-" and "_", 1 to 64 of them: what a server-given id or
    // hash must be before it becomes part of a file name or a request path.
    static bool isPlainFileName(std::string_view text);

private:
    // What a cycle sent, by record id: it is what a verdict is settled against.
    struct Sent {
        std::string table;
        bool isNew = false;
        CaptureStore::Pending collected;  // the ledger row as it was read
        Json change;                      // as sent
    };
    using SentTable = std::map<std::string, Sent>;

    SyncEngine(const asio::any_io_executor& executor, CaptureStore& store, const std::string& baseURL,
               std::string deviceName, std::optional<std::string> appVersion);

    void setStatus(SyncStatus status);
    asio::awaitable<void> runOnce();
    asio::awaitable<void> runSteps();
    // Turns a failed run into its status and log line.
    void settleFailure(std::exception_ptr failure, bool cancelled);
    asio::awaitable<void> refreshAccount();

    asio::awaitable<bool> cycle();
    bool handleResult(const Json& result, const SentTable& sent);
    // Acknowledges one sent change; true when the row was edited again while
    // the change was in flight, so that it goes out again at once.
    bool acknowledge(const Sent& sent, const std::optional<std::int64_t>& version);
    void applyRemoteChanges(const Json& changes);
    // A remote row naming a file or a path segment that isn't a plain file
    // name is refused, with a warning in the sync log.
    bool refuseUnsafeNames(const std::string& table, const Json& row);

    // The files of one image on their way to the server: what is known of
    // them before, and how sending them ended.
    struct ImageBlobs {
        struct File {
            std::optional<std::string> path;
            std::filesystem::path (*locate)(const std::string&);
            std::optional<std::string> hash;  // the stored one before, the sent one after
        };
        // How sending ended: not tried (a failure elsewhere ended the run
        // first), sent, held back silently (the server takes no uploads),
        // skipped (a failure of the image's own: `skipReason`), or a failure
        // that ends the run (`runEnding`).
        enum class Outcome { untried, sent, held, skipped, endsRun };
        std::string imageID;
        std::string workspaceID;
        std::array<File, 3> files;  // original, marked, thumbnail
        Outcome outcome = Outcome::untried;
        std::string skipReason;
        std::exception_ptr runEnding;
    };
    // What must reach the server before the image's change can go out;
    // nothing when its capture is not shared.
    std::optional<ImageBlobs> blobsToSend(const CaptureImage& image);
    // Sends the images' files, several images at once, each file only when
    // its hash is not known to be on the server, and sets each one's outcome.
    // After a failure that ends the run no further image is tried.
    asio::awaitable<void> ensureBlobs(std::vector<ImageBlobs>& images);
    static void uploadFilesOf(const SyncClient& client, ImageBlobs& image, const Cancellation& cancel);
    // Sends the files of the image rows about to go out and keeps their
    // hashes; gives the rows to hold back this time. Throws what ends the run.
    asio::awaitable<std::set<std::string>> sendImageFiles(const std::vector<CaptureStore::Pending>& pending);
    asio::awaitable<void> downloadPendingImages();
    // An image whose files are written but whose paths are not stored yet.
    struct DownloadedImage {
        std::string id;
        std::string imagePath;
        std::optional<std::string> annotatedPath;
        std::optional<std::string> thumbPath;
    };
    // An image awaiting its files, and how fetching them ended: written
    // (`files`), failed for a reason of its own (`failure`), a failure that
    // ends the run, or not tried because one ended it first.
    struct ImageDownload {
        explicit ImageDownload(CaptureStore::AwaitingDownload wanted) : wanted(std::move(wanted)) {}
        CaptureStore::AwaitingDownload wanted;
        std::optional<DownloadedImage> files;
        std::optional<std::string> failure;
        std::exception_ptr runEnding;
    };
    // Fetches the files the image lacks and writes them, not yet durable.
    static DownloadedImage fetchFilesOf(const SyncClient& client, const CaptureImage& image,
                                        const std::string& workspaceID, const Cancellation& cancel);
    // Makes the images' files durable, then stores their paths, in order.
    void storeDownloadedImages(const std::vector<DownloadedImage>& images);

    void startEvents();
    static asio::awaitable<void> readEvents(std::shared_ptr<SyncEngine> self);

    void activate(const AccountInfo& info);
    static asio::awaitable<void> registerDevice(std::shared_ptr<SyncEngine> self, std::string deviceID);
    asio::awaitable<void> reconcileIfDue();

    // Runs a blocking client call on the pool. Cancelling the awaiting task,
    // or the engine going away, cancels the call.
    template <typename Work>
    asio::awaitable<std::invoke_result_t<Work&, const Cancellation&>> call(Work work) {
        Cancellation cancel;
        const Cancellation closing = closing_;
        // Named, not passed as temporaries: g++ 12 destroys a temporary
        // argument of a coroutine called in a co_await twice.
        auto job = [work = std::move(work), cancel, closing]() mutable {
            const auto link = closing.onCancel([cancel] { cancel.cancel(); });
            if (closing.isCancelled()) cancel.cancel();
            return work(cancel);
        };
        std::function<void()> interrupt = [cancel] { cancel.cancel(); };
        co_return co_await offload(pool_, std::move(job), std::move(interrupt));
    }

    // The last 8 characters of an id, as messages show it.
    static std::string id8(const std::string& id);

    // Constant after construction.
    CaptureStore& store_;
    SyncClient client_;  // has its own lock
    const std::string deviceName_;
    const std::optional<std::string> appVersion_;
    SerialExecutor executor_;
    Cancellation closing_;  // raised when the engine goes

    // On the executor only.
    std::optional<RunScheduler> scheduler_;  // made by create, once the engine is shared
    StatusHandler statusHandler_;
    SyncStatus status_ = SyncStatus::signedOut();
    std::optional<Date> lastSync_;
    TaskHandle eventsTask_;
    std::deque<std::string> fullGroupsQueue_;
    std::map<std::string, int> rejections_;
    std::optional<Date> lastAccountRefresh_;

    // Last, so that it is joined before anything its calls use goes away.
    asio::thread_pool pool_{3};  // a run's call, the event stream, the device registration
};

}  // namespace mirel
