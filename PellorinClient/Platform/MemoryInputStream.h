// MemoryInputStream: an InputStream over bytes held in memory (the body of a one-shot upload).
// Read by one thread at a time; status and delegate calls from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/InputStream.h"

namespace pellorin {

class MemoryInputStream : public InputStream {
  public:
    explicit MemoryInputStream(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}

    void open() override;
    void close() override;
    int64_t read(uint8_t* buffer, int64_t maxLength) override;
    // Back to the first byte while open (or at its end).
    bool rewind() override;
    bool hasBytesAvailable() const override;
    StreamStatus streamStatus() const override;

    StreamDelegate* delegate() const override;
    void setDelegate(StreamDelegate* delegate) override;
    void schedule(std::shared_ptr<SerialQueue> queue, std::string mode) override;
    void remove(const std::shared_ptr<SerialQueue>& queue, const std::string& mode) override;

  private:
    void postIfScheduled(StreamEvent event);

    const std::vector<uint8_t> bytes_;
    mutable std::mutex mutex_;
    size_t position_ = 0;                          // guarded by mutex_
    StreamStatus status_ = StreamStatus::notOpen;  // guarded by mutex_
    StreamDelegate* delegate_ = nullptr;           // guarded by mutex_; unretained
    std::shared_ptr<SerialQueue> queue_;           // guarded by mutex_
};

}  // namespace pellorin
