#include "ProgressLine.h"

#include <cmath>
#include <cstdio>

#include "Units.h"

namespace pellorin::host {

std::string formatProgressLine(const ProgressSnapshot& s) {
    double fraction = 1.0;
    if (s.totalBytes > 0) {
        fraction = static_cast<double>(s.doneBytes) / static_cast<double>(s.totalBytes);
    } else if (s.totalParts > 0) {
        fraction = static_cast<double>(s.partsDone) / static_cast<double>(s.totalParts);
    }
    const double percent = std::floor(std::min(fraction, 1.0) * 1000) / 10;
    std::string time;
    if (s.finished) {
        time = "in " + formatDuration(s.elapsedSecs);
    } else {
        const double left =
            s.bytesPerSecond > 0
                ? static_cast<double>(s.totalBytes - std::min(s.doneBytes, s.totalBytes)) /
                      s.bytesPerSecond
                : -1;
        time = formatDuration(left) + " left";
    }
    char head[16];
    std::snprintf(head, sizeof head, "%5.1f%%", percent);
    return std::string(head) + "  " + formatBytes(s.doneBytes) + " / " + formatBytes(s.totalBytes) +
           "  " + formatRate(s.bytesPerSecond) + "  " + time + "  parts " +
           std::to_string(s.partsDone) + "/" + std::to_string(s.totalParts) + ", " +
           std::to_string(s.partsFailed) + " failed, " + std::to_string(s.retries) +
           (s.retries == 1 ? " retry" : " retries");
}

void RateWindow::add(Clock::time_point now, uint64_t bytes) {
    samples_.emplace_back(now, bytes);
    while (samples_.size() > 2 && now - samples_[1].first >= span_) {
        samples_.pop_front();
    }
}

double RateWindow::rate() const {
    if (samples_.size() < 2) {
        return 0;
    }
    const auto& [firstTime, firstBytes] = samples_.front();
    const auto& [lastTime, lastBytes] = samples_.back();
    const double seconds = std::chrono::duration<double>(lastTime - firstTime).count();
    return seconds > 0 && lastBytes >= firstBytes
               ? static_cast<double>(lastBytes - firstBytes) / seconds
               : 0;
}

ProgressDisplay::ProgressDisplay(const ProgressCounters& counters, std::shared_ptr<StatusLine> line,
                                 std::chrono::milliseconds plainEvery)
    : counters_(counters), line_(std::move(line)), plainEvery_(plainEvery) {
    if (!line_->quiet()) {
        thread_ = std::thread([this] { run(); });
    }
}

void ProgressDisplay::setNote(std::string note) {
    std::lock_guard lock(mutex_);
    note_ = std::move(note);
}

std::string ProgressDisplay::text(bool finished) {
    std::string text = formatProgressLine(snapshot(finished));
    std::lock_guard lock(mutex_);
    if (!note_.empty() && !finished) {
        text += "  " + note_;
    }
    return text;
}

ProgressDisplay::~ProgressDisplay() {
    stop();
}

void ProgressDisplay::stop() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
        if (line_->live()) {
            line_->show(text(true));
            line_->finish();
        } else {
            line_->note(text(true));
        }
    }
}

ProgressSnapshot ProgressDisplay::snapshot(bool finished) {
    const auto now = RateWindow::Clock::now();
    const uint64_t sent = counters_.sentBytes.load();
    ProgressSnapshot s;
    s.totalBytes = counters_.totalBytes;
    s.doneBytes = counters_.doneBytes.load();
    s.totalParts = counters_.totalParts;
    s.partsDone = counters_.partsDone.load();
    s.partsFailed = counters_.partsFailed.load();
    s.retries = counters_.retries.load();
    s.elapsedSecs = std::chrono::duration<double>(now - started_).count();
    s.finished = finished;
    if (finished) {
        s.bytesPerSecond = s.elapsedSecs > 0 ? static_cast<double>(sent) / s.elapsedSecs : 0;
    } else {
        window_.add(now, sent);
        s.bytesPerSecond = window_.rate();
    }
    return s;
}

void ProgressDisplay::run() {
    // On a terminal the line is redrawn ten times a second; elsewhere (a log file, a pipe) a
    // plain line is printed every plainEvery_, the rate window still sampled in between.
    auto nextPlain = RateWindow::Clock::now() + plainEvery_;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        lock.unlock();
        if (line_->live()) {
            line_->show(text(false));
        } else if (RateWindow::Clock::now() >= nextPlain) {
            line_->print(text(false));
            nextPlain += plainEvery_;
        } else {
            snapshot(false);
        }
        lock.lock();
        wake_.wait_for(lock, std::chrono::milliseconds(100), [this] { return stopping_; });
    }
}

}  // namespace pellorin::host
