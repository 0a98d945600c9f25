#include "own_processor.h"

#include <pthread.h>
#include <sched.h>

namespace bench {
namespace {

void BindTo(const std::vector<size_t> &processors) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const size_t processor : processors) {
        CPU_SET(processor, &set);
    }
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

}  // namespace

const std::vector<size_t> &Processors() {
    static const std::vector<size_t> processors = [] {
        std::vector<size_t> allowed;
        cpu_set_t set;
        pthread_getaffinity_np(pthread_self(), sizeof(set), &set);
        for (size_t i = 0; i < CPU_SETSIZE; ++i) {
            if (CPU_ISSET(i, &set)) {
                allowed.push_back(i);
            }
        }
        return allowed;
    }();
    return processors;
}

OwnProcessor::OwnProcessor(size_t thread) {
    BindTo({Processors()[thread % Processors().size()]});
}

OwnProcessor::~OwnProcessor() {
    BindTo(Processors());
}

}  // namespace bench
