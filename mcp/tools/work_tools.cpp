#include "core/format/format.h"
#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "mcp/tools/tool.h"
#include "mcp/tools/tool_arguments.h"

namespace mirel {

namespace {

using Format::idPrefix;
using Format::quoted;
using ToolSchema::property;

Comment agentComment(const std::string& captureID, const std::string& author, const std::string& body) {
    return Comment::written(captureID, author, true, body, Clock::now());
}

ToolResult claimCapture(const ToolContext& context, const Json& arguments) {
    auto found = context.findCapture(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = context.actor(arguments);
    std::string reply;
    // The last claimant wins; an earlier one is only mentioned.
    if (capture.claimedBy && *capture.claimedBy != who)
        reply = "Heads up: " + *capture.claimedBy + " already claimed this. Claiming for " + who + " anyway.\n";
    const auto claimed = context.store.claim(capture.id, who);
    if (!claimed) return ToolResult::text(reply + "Claim failed.");
    return ToolResult::text(reply + "Claimed [" + idPrefix(claimed->id) + "] " + quoted(claimed->title()) +
                            " as " + who + ". Status is now " + Format::statusWord(claimed->status) + ".");
}

ToolResult commentOnCapture(const ToolContext& context, const Json& arguments) {
    const std::string body = trimWhitespaceAndNewlines(ToolArguments::text(arguments, "body").value_or(""));
    if (body.empty()) return ToolResult::failure("Missing required parameter `body`.");
    auto found = context.findCapture(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = context.actor(arguments);
    context.store.addComment(agentComment(capture.id, who, body));
    context.store.recordActivity({.captureID = capture.id, .kind = ActivityKind::commented, .actor = who});
    return ToolResult::text("Comment added to [" + idPrefix(capture.id) + "] " + quoted(capture.title()) + " as " +
                            who + ".");
}

ToolResult resolveCapture(const ToolContext& context, const Json& arguments) {
    auto found = context.findCapture(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = context.actor(arguments);
    const auto reference = ToolArguments::nonEmptyText(arguments, "reference");
    // The comment goes in as given: blanks are a comment too.
    if (const auto comment = ToolArguments::nonEmptyText(arguments, "comment"))
        context.store.addComment(agentComment(capture.id, who, *comment));
    const auto resolved = context.store.resolve(capture.id, reference, who);
    if (!resolved) return ToolResult::failure("Could not resolve capture " + capture.id + ".");
    std::string reply = "Resolved [" + idPrefix(resolved->id) + "] " + quoted(resolved->title()) + ".";
    if (reference) reply += " Reference: " + *reference;
    return ToolResult::text(reply);
}

ToolResult reopenCapture(const ToolContext& context, const Json& arguments) {
    auto found = context.findCapture(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = context.actor(arguments);
    if (const auto comment = ToolArguments::nonEmptyText(arguments, "comment"))
        context.store.addComment(agentComment(capture.id, who, *comment));
    const auto reopened = context.store.setStatus(capture.id, CaptureStatus::open, who);
    if (!reopened) return ToolResult::failure("Could not reopen capture " + capture.id + ".");
    return ToolResult::text("Reopened [" + idPrefix(reopened->id) + "] " + quoted(reopened->title()) +
                            ". Status is now OPEN.");
}

}  // namespace

std::vector<Tool> workTools() {
    const auto id = std::pair{"id", property("string", ToolSchema::captureID)};
    return {
        Tool::make("claim_capture",
                   "Take ownership of a capture before you start working on it, so the user can see in the "
                   "dashboard that an agent picked it up. Moves an open capture to in_progress.",
                   {id,
                    {"agent",
                     property("string", "Name to claim as. Defaults to this server's configured agent name.")}},
                   {"id"}, claimCapture).writing(),
        Tool::make("comment_on_capture",
                   "Add a note to a capture — your diagnosis, the root cause, what you changed, or a question for "
                   "the user. Comments show up in the dashboard attributed to you.",
                   {id,
                    {"body", property("string", "The comment text.")},
                    {"agent", property("string", "Author name. Defaults to this server's configured agent name.")}},
                   {"id", "body"}, commentOnCapture).writing(),
        Tool::make("resolve_capture",
                   "Mark a capture fixed. Optionally record what fixed it — a commit sha, a PR link, or a short "
                   "explanation — which is shown on the card in the dashboard.",
                   {id,
                    {"reference", property("string", "Commit sha, PR URL, or short description of the fix.")},
                    {"comment", property("string", "Optional comment posted alongside the resolution.")},
                    {"agent",
                     property("string", "Who resolved it. Defaults to this server's configured agent name.")}},
                   {"id"}, resolveCapture).writing(),
        Tool::make("reopen_capture",
                   "Move a resolved or archived capture back to open, e.g. when a fix did not hold.",
                   {id, {"comment", property("string", "Optional reason, posted as a comment.")},
                    {"agent", property("string")}},
                   {"id"}, reopenCapture).writing(),
    };
}

}  // namespace mirel
