#include "receiver/RequestLog.h"

#include <algorithm>

namespace pellorin::receiver {

RequestLog::Visit::~Visit() {
    std::lock_guard lock(log_.mutex_);
    if (serving_) {
        --log_.serving_;
    }
}

void RequestLog::Visit::complete(RequestRecord record) {
    Receiver::RequestObserver observer;
    {
        std::lock_guard lock(log_.mutex_);
        *slot_ = record;
        if (serving_) {
            --log_.serving_;
            serving_ = false;
        }
        observer = log_.observer_;
    }
    if (observer) {
        observer(record);
    }
}

RequestLog::Visit RequestLog::arrive(RequestRecord record) {
    std::lock_guard lock(mutex_);
    const uint32_t attempt = attempts_[{record.path, record.partNumber}]++;
    auto slot = std::make_shared<RequestRecord>(std::move(record));
    records_.push_back(slot);
    ++serving_;
    maxServing_ = std::max(maxServing_, serving_);
    return Visit(*this, std::move(slot), attempt);
}

void RequestLog::setFaultScript(Receiver::FaultScript script) {
    std::lock_guard lock(mutex_);
    script_ = std::move(script);
}

Receiver::FaultScript RequestLog::faultScript() const {
    std::lock_guard lock(mutex_);
    return script_;
}

void RequestLog::setObserver(Receiver::RequestObserver observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

std::vector<RequestRecord> RequestLog::snapshot() const {
    std::lock_guard lock(mutex_);
    std::vector<RequestRecord> copy;
    copy.reserve(records_.size());
    for (const auto& record : records_) {
        copy.push_back(*record);
    }
    return copy;
}

int RequestLog::maxConcurrent() const {
    std::lock_guard lock(mutex_);
    return maxServing_;
}

void RequestLog::reset() {
    std::lock_guard lock(mutex_);
    records_.clear();
    attempts_.clear();
    maxServing_ = serving_;
}

}  // namespace pellorin::receiver
