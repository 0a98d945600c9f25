#include "service_instances.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <latch>
#include <numeric>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "capwap/describe.h"
#include "failure.h"
#include "kes/thread.h"
#include "packet_capture.h"
#include "standin/channels.h"
#include "standin/engine_parts.h"
#include "standin/mbuf_pool.h"
#include "standin/packet_path.h"

namespace kes_engine {
namespace {

constexpr uint32_t kMaxInstances = 1000;

constexpr uint32_t kStopEvent = 1u << 31;

// A thread that got packets lets others gather for so long before it looks again, as network
// drivers do: while they come, it need not be woken for each.
constexpr std::chrono::milliseconds kGather{1};

struct HashOfContent {
    size_t operator()(const capwap::Content &content) const {
        return std::hash<std::string_view>()(content.words) + content.number.value_or(0);
    }
};

}  // namespace

class alignas(64) Receiver {
  public:
    Receiver(uint32_t instance, const PacketType &type, uint32_t channelCapacity,
             const OutputDirectory &out);
    ~Receiver() {
        Stop();
    }

    void Stop();
    std::string CloseCapture() {
        return capture_.Close();
    }
    uint64_t Count() const {
        return count_.load(std::memory_order_relaxed);
    }
    InstanceReport::Received Result() const;

  private:
    void StartThread();
    void Run();
    bool Drain();
    void Receive(const HostMbuf *packet);

    const PacketType &type_;
    const std::string threadName_;
    PacketCapture capture_;
    std::unordered_map<capwap::Content, uint64_t, HashOfContent> messages_;
    ClassCounts byClass_ = {};
    std::atomic<uint64_t> count_{0};
    uint32_t channel_;
    std::latch started_{1};
    bool known_ = false;  // whether the thread could make itself known; written before it starts
    std::thread thread_;
};

Receiver::Receiver(uint32_t instance, const PacketType &type, uint32_t channelCapacity,
                   const OutputDirectory &out)
    : type_(type),
      threadName_(type.threadPrefix + std::to_string(instance)),
      capture_(out.PathOf(InstanceCapture(instance, type.name))) {
    const std::string channelName = type.channelPrefix + std::to_string(instance);
    channel_ = standin::OpenChannel(channelName, channelCapacity);
    if (channel_ == TOV_CHANNEL_ID_NONE) {
        throw Failure("cannot open channel '" + channelName + "'");
    }
    try {
        StartThread();
    } catch (...) {
        standin::CloseChannel(channel_);
        throw;
    }
}

void Receiver::StartThread() {
    try {
        thread_ = std::thread(&Receiver::Run, this);
    } catch (const std::system_error &error) {
        throw Failure("cannot start thread '" + threadName_ + "': " + error.code().message());
    }
    started_.wait();
    if (!known_) {
        thread_.join();
        throw Failure("cannot start thread '" + threadName_ + "': another bears its name");
    }
}

void Receiver::Run() {
    known_ = TOV_ThreadInfoRegByName(threadName_.c_str()) == 0;
    started_.count_down();
    uint32_t events = 0;
    while (known_ && (events & kStopEvent) == 0) {
        if (TOV_EventRead(&events) == 0 && (events & (type_.event | kStopEvent)) != 0) {
            while (Drain()) {
                std::this_thread::sleep_for(kGather);
            }
        }
    }
}

// Whether there were packets.
bool Receiver::Drain() {
    std::array<HostMbuf *, standin::kMaxBurst> burst;
    uint64_t received = 0;
    while (const size_t count = standin::ReceiveFromChannel(channel_, burst)) {
        standin::Prefetch(std::span(burst).first(count));
        std::for_each_n(burst.begin(), count, [this](const HostMbuf *packet) { Receive(packet); });
        standin::Release(std::span(burst).first(count));
        received += count;
        count_.store(Count() + count, std::memory_order_relaxed);
    }
    return received > 0;
}

void Receiver::Receive(const HostMbuf *packet) {
    CountByClass(byClass_, packet);
    ++messages_[capwap::ContentOf(standin::FrameAsReceived(packet))];
    capture_.Write(packet);
}

InstanceReport::Received Receiver::Result() const {
    InstanceReport::Received received = {Count(), {}, byClass_};
    for (const auto &[content, packets] : messages_) {
        received.messages[content.ToText()] += packets;
    }
    return received;
}

void Receiver::Stop() {
    if (!thread_.joinable()) {
        return;
    }
    TOV_EventWrite(TOV_ThreadInfoGetByName(threadName_.c_str()), kStopEvent);
    thread_.join();
    standin::CloseChannel(channel_);
}

std::vector<uint32_t> InstancesUpTo(uint32_t last) {
    if (last >= kMaxInstances) {
        throw Failure("the module has " + std::to_string(uint64_t{last} + 1) +
                      " service instances; at most " + std::to_string(kMaxInstances) +
                      " can be served here");
    }
    std::vector<uint32_t> numbers(last + 1);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

ServiceInstances::ServiceInstances(const std::vector<uint32_t> &instances, uint32_t channelCapacity,
                                   const OutputDirectory &out) {
    for (const uint32_t number : instances) {
        instances_.push_back({number,
                              std::make_unique<Receiver>(number, kCwp, channelCapacity, out),
                              std::make_unique<Receiver>(number, kWapi, channelCapacity, out)});
    }
}

ServiceInstances::~ServiceInstances() = default;

void ServiceInstances::Stop() {
    for (const Instance &instance : instances_) {
        instance.cwp->Stop();
        instance.wapi->Stop();
    }
}

std::vector<std::string> ServiceInstances::CloseCaptures() {
    std::vector<std::string> failures;
    for (const Instance &instance : instances_) {
        failures.push_back(instance.cwp->CloseCapture());
        failures.push_back(instance.wapi->CloseCapture());
    }
    return failures;
}

std::vector<InstanceCount> ServiceInstances::Counts() const {
    std::vector<InstanceCount> counts;
    for (const Instance &instance : instances_) {
        const InstanceCount count = {instance.number, instance.cwp->Count(),
                                     instance.wapi->Count()};
        if (count.cwp + count.wapi > 0) {
            counts.push_back(count);
        }
    }
    return counts;
}

std::vector<InstanceReport> ServiceInstances::Reports() const {
    std::vector<InstanceReport> reports;
    for (const Instance &instance : instances_) {
        InstanceReport report = {instance.number, instance.cwp->Result(), instance.wapi->Result()};
        if (report.cwp.packets + report.wapi.packets > 0) {
            reports.push_back(std::move(report));
        }
    }
    return reports;
}

}  // namespace kes_engine
