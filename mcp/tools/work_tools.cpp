#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "mcp/tools/format.h"
#include "mcp/tools/tool_arguments.h"
#include "mcp/tools/tool_registry.h"

namespace mirel {

namespace {

std::string quoted(const std::string& text) { return "\u201C" + text + "\u201D"; }

Comment agentComment(const std::string& captureID, const std::string& author, const std::string& body) {
    Comment comment;
    comment.id = newID();
    comment.captureID = captureID;
    comment.author = author;
    comment.isAgent = true;
    comment.body = body;
    comment.createdAt = Clock::now();
    comment.kind = "comment";
    comment.syncState = SyncState::local;
    return comment;
}

}  // namespace

Resolution ToolRegistry::resolve(const Json& arguments) {
    const std::string id = trimBlanks(ToolArguments::text(arguments, "id").value_or(""));
    if (id.empty()) return ToolResult::failure("Missing required parameter `id`.");
    const auto fullID = store_.resolveCaptureID(id);
    if (!fullID)
        return ToolResult::failure("No capture matches id " + quoted(id) +
                                   ". It may have been deleted, or the prefix may match more than one capture "
                                   "\u2014 call list_captures to see current ids.");
    auto capture = store_.capture(*fullID);
    if (!capture) return ToolResult::failure("Capture " + id + " no longer exists.");
    return std::move(*capture);
}

std::string ToolRegistry::actor(const Json& arguments) const {
    std::string agent = trimBlanks(ToolArguments::text(arguments, "agent").value_or(""));
    return agent.empty() ? defaultAgent_ : agent;
}

std::string ToolRegistry::claimAndDescribe(const std::string& id, const std::string& who) {
    const auto claimed = store_.claim(id, who);
    if (!claimed) return "Claim failed.";
    return "Claimed [" + Format::idPrefix(claimed->id) + "] " + quoted(claimed->title()) + " as " + who +
           ". Status is now " + Format::statusWord(claimed->status) + ".";
}

ToolResult ToolRegistry::claimCapture(const Json& arguments) {
    auto found = resolve(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = actor(arguments);
    std::string reply;
    // The last claimant wins; an earlier one is only mentioned.
    if (capture.claimedBy && *capture.claimedBy != who)
        reply = "Heads up: " + *capture.claimedBy + " already claimed this. Claiming for " + who + " anyway.\n";
    reply += claimAndDescribe(capture.id, who);
    return ToolResult::text(reply);
}

ToolResult ToolRegistry::commentOnCapture(const Json& arguments) {
    const std::string body = trimWhitespaceAndNewlines(ToolArguments::text(arguments, "body").value_or(""));
    if (body.empty()) return ToolResult::failure("Missing required parameter `body`.");
    auto found = resolve(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = actor(arguments);
    store_.addComment(agentComment(capture.id, who, body));
    store_.recordActivity(capture.id, "commented", "", who, newID(), Clock::now(), std::nullopt, false);
    return ToolResult::text("Comment added to [" + Format::idPrefix(capture.id) + "] " + quoted(capture.title()) +
                            " as " + who + ".");
}

ToolResult ToolRegistry::resolveCapture(const Json& arguments) {
    auto found = resolve(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = actor(arguments);
    const auto reference = ToolArguments::nonEmptyText(arguments, "reference");
    // The comment goes in as given: blanks are a comment too.
    if (const auto comment = ToolArguments::nonEmptyText(arguments, "comment"))
        store_.addComment(agentComment(capture.id, who, *comment));
    const auto resolved = store_.resolve(capture.id, reference, who);
    if (!resolved) return ToolResult::failure("Could not resolve capture " + capture.id + ".");
    std::string reply = "Resolved [" + Format::idPrefix(resolved->id) + "] " + quoted(resolved->title()) + ".";
    if (reference) reply += " Reference: " + *reference;
    return ToolResult::text(reply);
}

ToolResult ToolRegistry::reopenCapture(const Json& arguments) {
    auto found = resolve(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    const auto& capture = std::get<Capture>(found);
    const std::string who = actor(arguments);
    if (const auto comment = ToolArguments::nonEmptyText(arguments, "comment"))
        store_.addComment(agentComment(capture.id, who, *comment));
    const auto reopened = store_.setStatus(capture.id, CaptureStatus::open, who);
    if (!reopened) return ToolResult::failure("Could not reopen capture " + capture.id + ".");
    return ToolResult::text("Reopened [" + Format::idPrefix(reopened->id) + "] " + quoted(reopened->title()) +
                            ". Status is now OPEN.");
}

}  // namespace mirel
