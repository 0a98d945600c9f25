// capwap_responder: a service instance in small, for demonstrations and as a pattern for a
// controller's daemon. It runs where its instance's port is, say in a network namespace.
#include <poll.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "responder.h"

namespace {

using namespace responder;

enum ExitStatus { kOk = 0, kFailed = 1, kUsage = 2 };

volatile std::sig_atomic_t interrupted = 0;

// Answers what has come on a socket.
void Serve(Responder &responder, const Socket &socket) {
    Peer from;
    while (const auto datagram = socket.Receive(from)) {
        try {
            const capwap::Bytes answer = socket.Port() == capwap::kControlPort
                                             ? responder.AnswerControl(socket, from, *datagram)
                                             : responder.AnswerData(*datagram);
            if (!answer.empty()) {
                socket.Send(from, answer);
            }
        } catch (const std::exception &failure) {
            // Not answered: the access point asks again.
            std::cerr << "capwap_responder: " << failure.what() << '\n';
        }
    }
}

void Run(const Options &options, const std::vector<std::string> &addresses) {
    Responder responder(options);
    std::vector<Socket> sockets;
    std::vector<pollfd> descriptors;
    for (const std::string &address : addresses) {
        for (const uint16_t port : {capwap::kControlPort, capwap::kDataPort}) {
            sockets.emplace_back(address, port);
            descriptors.push_back(
                {.fd = sockets.back().Descriptor(), .events = POLLIN, .revents = 0});
        }
    }
    std::cerr << "instance " << options.node << " of " << options.nodes << " is serving\n";
    constexpr int kSliceMilliseconds = 100;
    while (interrupted == 0) {
        poll(descriptors.data(), descriptors.size(), kSliceMilliseconds);
        for (const Socket &socket : sockets) {
            Serve(responder, socket);
        }
    }
    for (const std::string &name : responder.Served()) {
        std::cout << name << '\n';
    }
    const Counts &counts = responder.Totals();
    std::cerr << "instance " << options.node << ": " << responder.Served().size()
              << " access points, " << counts.messages << " messages and " << counts.keepalives
              << " keepalives answered, " << counts.strange << " strange ones left\n";
}

int Main(int argc, char **argv) {
    CLI::App app("Answers access points as a controller's service instance does.",
                 "capwap_responder");
    Options options;
    std::vector<std::string> addresses;
    app.add_option("--address", addresses,
                   "An address of the controller's, on which it serves ports 5246 and 5247")
        ->option_text("ADDRESS... (required)")
        ->required();
    app.add_option("--node", options.node, "This instance's number")->option_text("N [0]");
    app.add_option("--nodes", options.nodes,
                   "How many instances there are; access points are dealt out by their addresses")
        ->option_text("N [1]")
        ->check(CLI::Range(1u, 1000u));
    app.add_option("--control", options.socket, "The engine's control socket")
        ->option_text("PATH [the user's own]");
    app.footer(
        "It registers an access point's tunnel with its owner when it is discovered, and the\n"
        "session when it joins. On SIGINT or SIGTERM it ends, and prints whom it has served:\n"
        "address and control port on a line.\n");
    try {
        app.parse(argc, argv);
        if (options.node >= options.nodes) {
            throw CLI::ValidationError("--node", "there is no instance " +
                                                     std::to_string(options.node) + " of " +
                                                     std::to_string(options.nodes));
        }
        for (const int signal : {SIGINT, SIGTERM}) {
            std::signal(signal, [](int) { interrupted = 1; });
        }
        Run(options, addresses);
        return kOk;
    } catch (const CLI::Success &answer) {
        app.exit(answer);
        return kOk;
    } catch (const CLI::ParseError &error) {
        std::cerr << "capwap_responder: " << error.what() << " (--help lists the options)\n";
        return kUsage;
    } catch (const std::exception &error) {
        std::cerr << "capwap_responder: " << error.what() << '\n';
        return kFailed;
    }
}

}  // namespace

int main(int argc, char **argv) {
    return Main(argc, argv);
}
