// Journal: the parts of earlier runs that the server accepted, kept in a file so that a transfer
// interrupted by a crash or Ctrl-C resumes where it stopped.
//
// The file holds one JSON object per line: the part's place ("path", "partNumber", "offset",
// "length"), its destination ("method", "url" with its secrets replaced, and "destinationSha256",
// the SHA-256 of the whole destination, which is what is compared), the source's identity when it
// was read ("device", "inode", "size", "mtimeNs") and the server's "eTag". A part counts as done
// only when place, destination and source identity all match the part planned now. Each line is
// appended with one write() and flushed to disk (fdatasync) before its part counts as done; lines
// appended together are flushed together (JournalWriter.h). A last line without its newline was
// torn by a crash: it is ignored and cut off when the journal is opened. The journal holds an
// exclusive lock on the file while it is open, so two runs cannot share one.
//
// Threads: open and check on the host thread before the transfer; append, sync and record on one
// thread at a time (the JournalWriter's during a transfer).
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

    // What the journal says of a planned part.
    enum class Verdict {
        done,                // recorded with this destination and this source identity
        sourceChanged,       // recorded for this destination, but the file is not what it was
        destinationChanged,  // recorded, but sent elsewhere (another reservation)
        absent,              // never recorded
    };
    Verdict check(const PlannedPart& part) const;
    size_t size() const { return entries_; }
    const std::filesystem::path& path() const { return path_; }

    // Appends the part and flushes it to disk. Throws std::system_error when either fails; the
    // journal is then unchanged as far as later runs are concerned, or ends in a torn line.
    void record(const PlannedPart& part, const std::string& eTag);
    // The halves of record(): append writes the part's line, which may not be on disk before the
    // next sync returns; sync flushes every line appended so far. Throw as record() does.
    void append(const PlannedPart& part, const std::string& eTag);
    void sync();

  private:
    struct Recorded {
        std::string destinationSha256;
        SourceIdentity source;
    };
    void load();

    std::filesystem::path path_;
    int fd_;  // open for reading and appending; owned
    std::map<PartKey, std::vector<Recorded>> recorded_;
    size_t entries_ = 0;
};

}  // namespace pellorin::host
