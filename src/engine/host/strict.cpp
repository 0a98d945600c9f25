#include "host/strict.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "standin/runtime.h"

namespace standin {
namespace {

std::atomic<bool> strict{false};

}  // namespace

void SetStrict(bool newStrict) {
    strict = newStrict;
}

bool Strict() {
    return strict.load(std::memory_order_relaxed);
}

void RefuseIfStrict(const char *call) {
    if (Strict()) {
        std::fprintf(stderr, "%s: no engine has to bear this\n", call);
        std::abort();
    }
}

}  // namespace standin
