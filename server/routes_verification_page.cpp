// The page at verification_uri: a person enters the device's code with their
// e-mail and password, and approves or denies the sign-in.
#include "server/accounts.h"
#include "server/api.h"
#include "server/device_flow.h"

namespace mirel::server {

namespace {

std::string escapeHTML(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default: out += c;
        }
    }
    return out;
}

std::string page(const std::string& title, const std::string& content) {
    return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
           "<title>" + title + " — Mirel</title><style>"
           "body{font:16px/1.5 system-ui,sans-serif;margin:0;background:#f4f5f8;color:#1d1f24}"
           "main{max-width:26rem;margin:4rem auto;background:#fff;padding:2rem;border-radius:12px;"
           "box-shadow:0 1px 4px rgba(0,0,0,.08)}h1{font-size:1.4rem;margin-top:0}"
           "label{display:block;margin:.8rem 0}input{display:block;width:100%;box-sizing:border-box;"
           "padding:.5rem;font:inherit;border:1px solid #c8ccd4;border-radius:6px}"
           "button{font:inherit;padding:.5rem 1.2rem;margin:.8rem .5rem 0 0;border-radius:6px;"
           "border:1px solid #6e7bf2;background:#6e7bf2;color:#fff}button.quiet{background:#fff;color:#6e7bf2}"
           ".note{padding:.6rem .8rem;border-radius:6px;background:#fdecec;color:#8a1c1c}"
           "</style></head><body><main><h1>" + title + "</h1>" + content + "</main></body></html>\n";
}

std::string form(const std::string& code, const std::string& email, const std::string& note) {
    std::string content = "<p>Enter the code that your device shows, then your e-mail and password.</p>";
    if (!note.empty()) content += "<p class=\"note\">" + escapeHTML(note) + "</p>";
    content += "<form method=\"post\" action=\"device\">"
               "<label>Code<input name=\"user_code\" value=\"" + escapeHTML(code) +
               "\" autocomplete=\"off\" autocapitalize=\"characters\" required></label>"
               "<label>E-mail<input type=\"email\" name=\"email\" value=\"" + escapeHTML(email) +
               "\" autocomplete=\"username\"></label>"
               "<label>Password<input type=\"password\" name=\"password\" autocomplete=\"current-password\"></label>"
               "<button name=\"decision\" value=\"approve\">Sign in</button>"
               "<button class=\"quiet\" name=\"decision\" value=\"deny\">Deny</button></form>";
    return page("Sign in a device", content);
}

void replyPage(httplib::Response& response, int status, const std::string& html) {
    response.status = status;
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'; frame-ancestors 'none'");
    response.set_header("X-Frame-Options", "DENY");
    response.set_header("Cache-Control", "no-store");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_content(html, "text/html; charset=utf-8");
}

}  // namespace

void Api::installVerificationPage(httplib::Server& server) {
    server.Get("/device", [](const httplib::Request& request, httplib::Response& response) {
        replyPage(response, 200, form(request.get_param_value("user_code"), "", ""));
    });

    server.Post("/device", [this](const httplib::Request& request, httplib::Response& response) {
        httplib::Params fields;
        httplib::detail::parse_query_text(request.body, fields);
        auto field = [&](const char* name) {
            auto found = fields.find(name);
            return found == fields.end() ? std::string() : found->second;
        };
        const std::string code = field("user_code");
        const std::string email = field("email");
        auto normalized = DeviceFlow::normalizeUserCode(code);
        if (!normalized) return replyPage(response, 400, form(code, email, "That is not a sign-in code."));

        auto db = storage_.connection();
        try {
            if (field("decision") == "deny") {
                DeviceFlow::decide(*db, *normalized, std::nullopt);
                return replyPage(response, 200, page("Sign-in denied", "<p>The device will stop waiting.</p>"));
            }
            auto user = Accounts::checkPassword(*db, email, field("password"));
            if (!user) {
                DeviceFlow::noteWrongPassword(*db, *normalized);
                return replyPage(response, 403, form(*normalized, email, "E-mail or password is wrong."));
            }
            DeviceFlow::decide(*db, *normalized, user->id);
            replyPage(response, 200,
                      page("Device signed in", "<p>Signed in as " + escapeHTML(user->email) +
                                                   ". The device finishes on its own; you can close this page.</p>"));
        } catch (const AccountError& error) {
            replyPage(response, 400, form(*normalized, email, std::string(error.what()) + "."));
        }
    });
}

}  // namespace mirel::server
