#pragma once
// One line of progress for long commands (`mirel demo`, `mirel add` of many
// images, `mirel sync`, `mirel signin`), redrawn in place on standard error.
//
// It draws only when standard output and standard error are both terminals:
// a piped or logged run, a script reading an id from standard output, and the
// background service all stay quiet. The line is cleared when the work ends or
// the Progress goes away, so a command's own output starts on a clean line.
#include <cstddef>
#include <iosfwd>
#include <string>

namespace mirel::host {

class Progress {
public:
    // Shown when standard output and standard error are terminals.
    Progress();
    // Shown as the caller decides, on `out`, `width` columns wide.
    Progress(std::ostream& out, bool shown, std::size_t width);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    bool shown() const { return shown_; }

    // "{label} {done}/{total}", such as "Filing demo captures 3/12".
    void count(const std::string& label, std::size_t done, std::size_t total);
    // Any one-line state, such as "Cycle 2 · 3 uploaded · 1 downloaded".
    void show(const std::string& line);
    // Removes the line; the next show() draws it again.
    void clear();

private:
    std::ostream* out_;
    bool shown_;
    std::size_t width_;
    std::string drawn_;  // what is on the screen now; empty when nothing is
};

}  // namespace mirel::host
