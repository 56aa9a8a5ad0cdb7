// Where one request body goes: an MD5 over every byte read (hashed in the receiver's shared lanes
// together with the other connections' bodies) and, optionally, a file the bytes are written into
// at a given offset. One per connection, reused request after request, used only by that
// connection's thread; the hasher must outlive it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "datapath/LaneHasher.h"
#include "datapath/Md5Lanes.h"
#include "receiver/UniqueFd.h"

namespace pellorin::receiver {

class BodySink {
  public:
    using Digest = std::array<uint8_t, 16>;

    explicit BodySink(LaneHasher& hasher) : hasher_(hasher) {}
    ~BodySink() { hasher_.leave(member_); }
    BodySink(const BodySink&) = delete;
    BodySink& operator=(const BodySink&) = delete;

    // Starts a body: a fresh digest, `file` (when open) written from byte `offset` on, and the
    // bytes kept in memory when `keep` (for small bodies the receiver reads itself).
    void begin(UniqueFd file, uint64_t offset, bool keep = false);
    // Hashes the bytes (waiting for their round) and writes them to the file. After a failed
    // write the file is dropped, the reason kept in writeError(), and hashing goes on.
    void consume(const uint8_t* data, size_t size);
    // The connection's thread starts (true) or stops (false) waiting for its socket. Rounds
    // do not wait for a body whose peer has sent nothing more yet: it leaves the hasher
    // meanwhile.
    void setIdle(bool idle);
    // Ends the body: the digest of every byte consumed since begin(); closes the file.
    Digest finish();

    uint64_t bytes() const { return bytes_; }
    // The bytes consumed since begin(keep = true); empty otherwise.
    const std::string& kept() const { return kept_; }
    const std::string& writeError() const { return writeError_; }

  private:
    LaneHasher& hasher_;
    LaneHasher::Member member_;
    bool inBody_ = false;  // between begin() and finish()
    Md5Stream md5_;
    UniqueFd file_;
    uint64_t offset_ = 0;
    uint64_t bytes_ = 0;
    std::string writeError_;
    bool keep_ = false;
    std::string kept_;
};

}  // namespace pellorin::receiver
