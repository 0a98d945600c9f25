// What a run came to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capture/reader.h"
#include "fates.h"
#include "interface_counts.h"
#include "module_statistics.h"
#include "port_count.h"
#include "service_instances.h"
#include "standin/runtime.h"
#include "timeline.h"
#include "unserved.h"

namespace kes_engine {

struct Result {
    std::string capture;
    uint32_t workers = 0;
    bool served = false;                      // clients may have reset the module's counters
    size_t commands = 0;                      // control commands run
    double seconds = 0;                       // from the first frame to the last one's fate
    uint64_t frames = 0;                      // counted where they come in
    uint64_t received = 0;                    // of these; the others are transmitted
    uint64_t cutShort = 0;                    // of these, by the capture
    uint64_t oversize = 0;                    // besides these: too long for a buffer, and left out
    capture::Tally tally;                     // of what frames came from
    std::vector<InterfaceCounts> interfaces;  // that were listened to
    uint64_t lostLogLines = 0;                // that could not be written
    Fates fates;                              // counted by the forwarding threads
    std::vector<InstanceReport> instances;    // counted by the instances
    std::optional<PacketCounters> counters;   // of the module, if it offers any: the replay's
    std::optional<MundDropWatch> dropWatch;   // of the module, if it has one
    standin::AlarmCounts alarms;
    std::optional<Traffic> traffic;          // of an engine that has ports, when they have stopped
    std::string begunAt;                     // local time of the first frame
    std::vector<TimePoint> timeline;         // of a run that keeps one
    std::optional<UnservedReport> unserved;  // the same
    std::vector<std::string> leftovers;      // what the module left behind
    std::vector<std::string> failures;       // what went wrong otherwise, one line each

    uint64_t ReceivedByInstances() const;
    // Every frame was received or transmitted; every packet received met one fate, and each that
    // was taken reached an instance. A port that was given packets sent or refused each.
    bool Conserved() const;
    // Where the module's counters are not what forwarding threads and instances saw, one line each.
    std::vector<std::string> Contradictions() const;
    // With several workers the module may lose counts, and clients may reset them: contradictions
    // are nothing wrong then.
    bool CountsAreExact() const;
    bool Ok() const;
};

// For people: aligned, ending in a newline.
std::string TextReport(const Result &result);

// For programs: one object, with "frames", "cutShort", "oversize" (besides the frames),
// "converted" {link type: frames that got an Ethernet header}, "passedOver" (not selected),
// "interfaces"
// [{"name", "frames", "kernelDrops", "interfaceDrops"}], "received", "returned", "taken",
// "undelivered", "transmitted", "conserved", "ok", "instances"
// [{"instance", "cwp", "wapi", "messages" {words: packets}}], "classes" [{"class", COUNTER:
// packets}], "contradictions" [text], "drops" {the drop watch as control::DropWatchToJson says
// it, "raises", "restores"}, "capture", "workers", "commands", "seconds", "packetsPerSecond",
// "leftovers" [text], "failures" [text], "lostLogLines". What the module does not offer is null.
// With ports, also what ToJson(Traffic) has, and of instances that have one "sent" and "refused".
std::string JsonReport(const Result &result);

}  // namespace kes_engine
