// The HTTP session service on loopback: streamed uploads of N sessions in parallel to the local
// receiver (bytes/s, peak RSS), and how long cancel() takes to end a stalled transfer.
// Arguments of BM_StreamedUpload: sessions, MiB per session.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include <benchmark/benchmark.h>

#include "Platform/HttpSession.h"
#include "Platform/MemoryInputStream.h"
#include "receiver/Receiver.h"

namespace {

using namespace pellorin;

// Produces `length` bytes of a fixed pattern without holding the body in memory.
class PatternStream : public MemoryInputStream {
  public:
    explicit PatternStream(int64_t length) : MemoryInputStream({}), left_(length) {}
    void open() override {}
    StreamStatus streamStatus() const override { return StreamStatus::open; }
    int64_t read(uint8_t* buffer, int64_t maxLength) override {
        const int64_t n = std::min(maxLength, left_);
        std::memset(buffer, 0x5a, static_cast<size_t>(n));
        left_ -= n;
        return n;
    }

  private:
    int64_t left_;
};

// Answers body requests with a PatternStream and counts the sessions that have become invalid.
class Delegate : public HttpSessionDelegate {
  public:
    void urlSessionTaskNeedNewBodyStream(
        HttpSession&, UploadTask& task,
        std::function<void(std::shared_ptr<InputStream>)> completion) override {
        completion(std::make_shared<PatternStream>(
            std::stoll(*task.originalRequest().valueForHTTPHeaderField("Content-Length"))));
        std::lock_guard lock(mutex_);
        started_ = true;
        changed_.notify_all();
    }
    void urlSessionTaskDidSendBodyData(HttpSession&, UploadTask&, int64_t, int64_t,
                                       int64_t) override {}
    void urlSessionTaskDidFinishCollectingMetrics(HttpSession&, UploadTask&,
                                                  const TaskMetrics&) override {}
    void urlSessionTaskDidCompleteWithError(HttpSession&, UploadTask& task,
                                            const std::optional<PlatformError>& error) override {
        std::lock_guard lock(mutex_);
        failed_ = failed_ || error || !task.response() || task.response()->statusCode() != 200;
        completedAt_ = std::chrono::steady_clock::now();
    }
    void urlSessionDidBecomeInvalidWithError(HttpSession&,
                                             const std::optional<PlatformError>&) override {
        std::lock_guard lock(mutex_);
        ++invalidated_;
        changed_.notify_all();
    }
    // Waits (at most 60 s) until `count` sessions have become invalid; false when any failed.
    bool waitForInvalidations(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [&] {
            return invalidated_ >= count;
        }) && !failed_;
    }
    bool waitForStart() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return started_; });
    }
    std::chrono::steady_clock::time_point completedAt() {
        std::lock_guard lock(mutex_);
        return completedAt_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int invalidated_ = 0;
    bool failed_ = false;
    bool started_ = false;
    std::chrono::steady_clock::time_point completedAt_;
};

HttpRequest putRequest(const std::string& url, int64_t length) {
    HttpRequest request(*Url::parse(url));
    request.httpMethod = "PUT";
    request.addValue(std::to_string(length), "Content-Length");
    return request;
}

void BM_StreamedUpload(benchmark::State& state) {
    const auto sessions = static_cast<int>(state.range(0));
    const int64_t perSession = state.range(1) << 20;
    receiver::Receiver receiver;
    receiver.start();
    auto queue = SerialQueue::make("bench.delegate");
    for (auto _ : state) {
        auto delegate = std::make_shared<Delegate>();
        for (int i = 0; i < sessions; ++i) {
            auto session = HttpSession::make(SessionConfiguration::ephemeral(), delegate, queue);
            session
                ->uploadTaskWithStreamedRequest(
                    putRequest(receiver.partUrl("b" + std::to_string(i), 0), perSession))
                ->resume();
            session->finishTasksAndInvalidate();
        }
        if (!delegate->waitForInvalidations(sessions)) {
            state.SkipWithError("an upload failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * sessions * perSession);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peakRssMiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// Time from cancel() to the task's completion callback, with the server stalling the body.
void BM_CancelStalledTransfer(benchmark::State& state) {
    receiver::Receiver receiver;
    receiver.setFaultScript([](const receiver::RequestInfo&) {
        receiver::Fault fault;
        fault.stallSecs = 60.0;
        return fault;
    });
    receiver.start();
    auto queue = SerialQueue::make("bench.delegate");
    for (auto _ : state) {
        auto delegate = std::make_shared<Delegate>();
        auto session = HttpSession::make(SessionConfiguration::ephemeral(), delegate, queue);
        auto task =
            session->uploadTaskWithStreamedRequest(putRequest(receiver.partUrl("c", 0), 64 << 20));
        task->resume();
        session->finishTasksAndInvalidate();
        delegate->waitForStart();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the body stall
        const auto cancelled = std::chrono::steady_clock::now();
        task->cancel();
        delegate->waitForInvalidations(1);
        state.SetIterationTime(
            std::chrono::duration<double>(delegate->completedAt() - cancelled).count());
    }
    receiver.stop();
}

}  // namespace

BENCHMARK(BM_StreamedUpload)
    ->Args({1, 512})
    ->Args({4, 128})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_CancelStalledTransfer)->Iterations(10)->Unit(benchmark::kMillisecond)->UseManualTime();

BENCHMARK_MAIN();
