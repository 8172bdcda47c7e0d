#include "core/format/pages.h"

#include "core/format/format.h"

#include <map>

namespace mirel::Pages {

DetailPage detail(CaptureStore& store, const Capture& capture) {
    std::optional<std::string> groupName;
    if (capture.groupID)
        if (const auto group = store.group(*capture.groupID)) groupName = group->name;
    const auto tags = store.tags(capture.id);
    const auto comments = store.comments(capture.id);
    const auto activity = store.activity(capture.id);
    auto images = store.images(capture.id);
    std::string text = Format::detail(capture, groupName, tags, comments, activity, images);
    return {std::move(text), std::move(images)};
}

std::vector<std::string> listEntries(CaptureStore& store, const std::vector<Capture>& captures) {
    std::map<std::string, std::string> groupNames;
    for (const auto& group : store.groups()) groupNames.emplace(group.id, group.name);
    std::vector<std::string> ids;
    for (const auto& capture : captures) ids.push_back(capture.id);
    const auto commentCounts = store.commentCounts(ids);
    const auto imageCounts = store.imageCounts(ids);
    const auto tags = store.tagsByCapture(ids);
    const auto countOf = [](const std::map<std::string, std::int64_t>& counts, const std::string& id) {
        const auto it = counts.find(id);
        return it == counts.end() ? std::int64_t{0} : it->second;
    };

    std::vector<std::string> entries;
    for (const auto& capture : captures) {
        std::optional<std::string> groupName;
        if (capture.groupID)
            if (const auto it = groupNames.find(*capture.groupID); it != groupNames.end()) groupName = it->second;
        const auto captureTags = tags.find(capture.id);
        entries.push_back(Format::listLine(
            capture, groupName, captureTags == tags.end() ? std::vector<std::string>{} : captureTags->second,
            countOf(commentCounts, capture.id), countOf(imageCounts, capture.id)));
    }
    return entries;
}

}  // namespace mirel::Pages
