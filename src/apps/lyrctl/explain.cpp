// explain: what the module would do with the frames of a capture.
#include <iostream>
#include <memory>

#include "capture/reader.h"
#include "control/input_error.h"
#include "control/json_line.h"
#include "control/values.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

using capture::Frame;

uint32_t NumberOrZero(const control::Arguments &arguments, std::string_view option,
                      uint32_t max = UINT32_MAX) {
    const std::string *text = arguments.Find(option);
    return text != nullptr ? control::ParseNumber(option, *text, max) : 0;
}

std::string TextIn(const ordered_json &object, const char *name) {
    const auto member = object.find(name);
    if (member == object.end() || member->is_null()) {
        return "";
    }
    return member->is_string() ? member->get<std::string>() : member->dump();
}

void PrintSteps(const Frame &frame, const ordered_json &answer) {
    std::cout << frame.ToText() << '\n';
    size_t number = 0;
    if (const auto steps = answer.find("steps"); steps != answer.end()) {
        for (const ordered_json &step : *steps) {
            std::string name = TextIn(step, "step");
            name.resize(std::max<size_t>(name.size(), 8), ' ');
            std::cout << "  " << ++number << ". " << name << "  " << TextIn(step, "text") << '\n';
        }
    }
    const std::string meaning = TextIn(answer, "meaning");
    std::cout << "  => " << (meaning.empty() ? TextIn(answer, "fate") : meaning) << '\n';
}

void PrintObject(const Frame &frame, const ordered_json &answer) {
    ordered_json object = {{"frame", frame.number}};
    if (frame.IsCutShort()) {
        object["missingBytes"] = frame.MissingBytes();
    }
    object.update(answer);
    object["frame"] = frame.number;
    std::cout << control::JsonLine(object) << '\n';
}

capture::Selection SelectionOf(const control::Arguments &arguments) {
    const std::string *frame = arguments.Find("--frame"), *frames = arguments.Find("--frames");
    if (frame != nullptr && frames != nullptr) {
        throw control::InputError("--frame '" + *frame + "' goes without --frames '" + *frames +
                                  "'");
    }
    capture::Selection selection;
    if (const std::string *filter = arguments.Find("--filter")) {
        selection.filter = *filter;
    }
    if (frame != nullptr || frames != nullptr) {
        selection.frames = frame != nullptr ? capture::FrameRanges("--frame", *frame)
                                            : capture::FrameRanges("--frames", *frames);
    }
    return selection;
}

// What is wrong with another option names it.
std::string ComplaintOf(const capture::Error &error) {
    const std::string what = error.what();
    return (what.starts_with("--") ? "" : "--capture: ") + what;
}

std::unique_ptr<capture::Reader> Open(const control::Arguments &arguments) {
    try {
        return std::make_unique<capture::Reader>(arguments["--capture"], SelectionOf(arguments));
    } catch (const capture::Error &error) {
        throw control::InputError(ComplaintOf(error));
    }
}

}  // namespace

ExitStatus ExplainCapture(Client &client, const control::Arguments &arguments) {
    const MundWireExplainReq arrival = {
        .rxPort = NumberOrZero(arguments, "--rx-port"),
        .vrf = NumberOrZero(arguments, "--vrf"),
        .causeAction = NumberOrZero(arguments, "--cause", UINT16_MAX),
        .reserved = 0};
    const std::unique_ptr<capture::Reader> frames = Open(arguments);
    uint64_t explained = 0;
    try {
        while (const std::optional<Frame> frame = frames->Next()) {
            const ordered_json answer = client.Engine().Explain(arrival, frame->bytes);
            client.Json() ? PrintObject(*frame, answer) : PrintSteps(*frame, answer);
            ++explained;
            if (!std::cout.flush()) {
                break;
            }
        }
    } catch (const capture::Error &error) {
        throw control::Refused(ComplaintOf(error));
    }
    if (const uint64_t others = frames->Done().passedOver; explained == 0 && others > 0) {
        Complain("note: none of the " + std::to_string(others) + " frames read is wanted");
    }
    return kOk;
}

}  // namespace lyrctl
