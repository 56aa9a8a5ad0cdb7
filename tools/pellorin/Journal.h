// Journal: the parts of earlier runs that the server accepted, kept in a file so that a transfer
// interrupted by a crash or Ctrl-C resumes where it stopped.
//
// The file holds one JSON object per line, {"path", "partNumber", "offset", "length", "eTag"},
// each appended with one write() and flushed to disk (fdatasync) before the next part is reported
// complete. A last line without its newline was torn by a crash: it is ignored and cut off when
// the journal is opened. The journal holds an exclusive lock on the file while it is open, so two
// runs cannot share one.
//
// Threads: open and contains on the host thread before the transfer; record on the client's
// delegate queue, one call at a time.
#pragma once

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "PartPlan.h"

namespace pellorin::host {

class Journal {
    // Only open() can make one: its constructor is private and user-provided, so `{}` does not
    // make one outside this class either.
    class Token {
        Token() {}
        friend class Journal;
    };

  public:
    // Opens or creates the journal and reads the parts it records. Throws InputError when the
    // file cannot be opened, is locked by another run, or holds a complete line that is not an
    // entry ("<path>:<line>: not a journal entry").
    static std::unique_ptr<Journal> open(const std::filesystem::path& path);
    Journal(Token, std::filesystem::path path, int fd) : path_(std::move(path)), fd_(fd) {}
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    bool contains(const PartKey& key) const { return recorded_.count(key) != 0; }
    size_t size() const { return recorded_.size(); }
    const std::filesystem::path& path() const { return path_; }

    // Appends the part and flushes it to disk. Throws std::system_error when either fails; the
    // journal is then unchanged as far as later runs are concerned, or ends in a torn line.
    void record(const PartKey& key, const std::string& eTag);

  private:
    void load();

    std::filesystem::path path_;
    int fd_;  // open for reading and appending; owned
    std::set<PartKey> recorded_;
};

}  // namespace pellorin::host
