// The live event stream: one "event: change" per accepted change in the
// user's workspaces, a comment line as keep-alive, a clean end at shutdown.
#include "server/api.h"
#include "server/refusal.h"

namespace mirel::server {

namespace {

struct Stream {
    std::shared_ptr<EventHub::Subscriber> subscriber;
    std::string token;
    std::string workspaceID;  // empty: all the user's workspaces
    bool started = false;
};

bool send(httplib::DataSink& sink, const std::string& text) { return sink.write(text.data(), text.size()); }

}  // namespace

void Api::installEvents(httplib::Server& server) {
    server.Get("/v1/events", [this](const httplib::Request& request, httplib::Response& response) {
        auto stream = std::make_shared<Stream>();
        std::set<std::string> workspaces;
        {
            auto db = storage_.connection();
            const User user = authenticate(request, *db);
            stream->token = request.get_header_value("Authorization").substr(7);
            stream->workspaceID = request.get_param_value("workspace");
            workspaces = stream->workspaceID.empty()
                             ? workspaceIDs(*db, user.id)
                             : std::set<std::string>{memberWorkspace(*db, user, stream->workspaceID)};
        }
        stream->subscriber = events_.subscribe(std::move(workspaces));
        if (!stream->subscriber) throw Refusal(503, "busy", "The server holds as many event streams as it can.");

        // The session and the memberships are looked at again at each
        // keep-alive: a signed-out device or a removed member stops hearing.
        auto stillAllowed = [this, stream] {
            auto db = storage_.connection();
            auto user = Accounts::userForToken(*db, stream->token);
            if (!user) return false;
            auto current = workspaceIDs(*db, user->id);
            if (!stream->workspaceID.empty()) return current.count(stream->workspaceID) > 0;
            events_.setWorkspaces(stream->subscriber, std::move(current));
            return true;
        };

        response.set_header("Cache-Control", "no-cache");
        response.set_header("X-Accel-Buffering", "no");
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, stream, stillAllowed](std::size_t, httplib::DataSink& sink) {
                if (!stream->started) {
                    stream->started = true;
                    return send(sink, ": connected\n\n");
                }
                auto wake = events_.wait(stream->subscriber, settings_.keepAliveInterval);
                if (wake.stopping || (wake.texts.empty() && !stillAllowed())) {
                    sink.done();
                    return true;
                }
                if (wake.texts.empty()) return send(sink, ": keep-alive\n\n");
                std::string batch;
                for (const auto& text : wake.texts) batch += text;
                return send(sink, batch);
            },
            [this, stream](bool) { events_.unsubscribe(stream->subscriber); });
    });
}

}  // namespace mirel::server
