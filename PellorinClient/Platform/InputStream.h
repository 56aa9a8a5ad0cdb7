// InputStream: the pull-style body stream the HTTP session reads request bodies from.
//
// A stream is read by one thread at a time (the HTTP task's transfer thread). Events are never
// delivered from a read: a stream scheduled on a SerialQueue posts each event there as an async
// block. The delegate is unretained: the stream neither keeps it alive nor clears it. Streams are
// owned through std::shared_ptr (event blocks hold them weakly).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <pellorin/SerialQueue.h>

namespace pellorin {

enum class StreamStatus { notOpen, opening, open, reading, writing, atEnd, closed, error };

enum class StreamEvent : unsigned {
    none = 0,
    openCompleted = 1u << 0,
    hasBytesAvailable = 1u << 1,
    hasSpaceAvailable = 1u << 2,
    errorOccurred = 1u << 3,
    endEncountered = 1u << 4,
};

const char* toString(StreamStatus status);

class InputStream;

// Receiver of stream events; called on the queue the stream is scheduled on.
class StreamDelegate {
  public:
    virtual ~StreamDelegate() = default;
    virtual void streamHandleEvent(InputStream& stream, StreamEvent event) = 0;
};

class InputStream : public std::enable_shared_from_this<InputStream> {
  public:
    virtual ~InputStream() = default;

    virtual void open() = 0;
    virtual void close() = 0;
    // Reads up to maxLength bytes into buffer. Returns the count read, 0 at the end of the
    // stream, or -1 on failure (the status is then error).
    virtual int64_t read(uint8_t* buffer, int64_t maxLength) = 0;
    // Direct access to an internal buffer; streams of this library have none.
    virtual bool getBuffer(uint8_t** /*buffer*/, int64_t* /*length*/) { return false; }
    virtual bool hasBytesAvailable() const = 0;
    // Restarts the body from its beginning, as if freshly opened: the next read serves the first
    // byte again, with a fresh digest and fresh byte counts, and no event is posted. False when
    // the stream cannot start again (the caller must then give up the request). Called on the
    // stream's reading thread (the transfer thread), between reads, when a request has to be
    // sent again. Streams that cannot restart keep this default.
    virtual bool rewind() { return false; }
    virtual StreamStatus streamStatus() const = 0;

    virtual StreamDelegate* delegate() const = 0;
    virtual void setDelegate(StreamDelegate* delegate) = 0;
    // Events go to `queue` from now on (the mode is kept for the record only).
    virtual void schedule(std::shared_ptr<SerialQueue> queue, std::string mode) = 0;
    virtual void remove(const std::shared_ptr<SerialQueue>& queue, const std::string& mode) = 0;

  protected:
    // Posts `event` to `queue` as an async block. When the block runs it calls the delegate
    // (if one is set then) with this stream, unless the stream has gone away meanwhile.
    void postEvent(const std::shared_ptr<SerialQueue>& queue, StreamEvent event);
};

}  // namespace pellorin
