// The sync exchange and the daily reconcile.
#include "server/api.h"

namespace mirel::server {

void Api::installSync(httplib::Server& server) {
    server.Post("/v1/sync", [this](const httplib::Request& request, httplib::Response& response) {
        User user = [&] {
            auto db = storage_.connection();
            return authenticate(request, *db);
        }();
        response.set_content(sync_.sync(user, jsonBody(request)), "application/json");
    });

    server.Post("/v1/sync/reconcile", [this](const httplib::Request& request, httplib::Response& response) {
        User user = [&] {
            auto db = storage_.connection();
            return authenticate(request, *db);
        }();
        replyJSON(response, sync_.reconcile(user, jsonBody(request)));
    });
}

}  // namespace mirel::server
