#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "mund/call.h"
#include "mund/reconciliation_messages.h"
#include "mund/rpc.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace {

using OperationFunc = uint32_t (*)(const void *request, void **reply);
using FreeFunc = uint32_t (*)(void *reply);

struct Binding {
    OperationFunc run = nullptr;
    FreeFunc release = nullptr;

    bool Bound() const {
        return run != nullptr && release != nullptr;
    }
};

using Bindings = std::array<Binding, MUND_OPERATION_COUNT>;

// The library (or the program) that an address lies in, for looking names up in it. A look-up in
// all that is loaded would tie the library to this one, and it could never be unloaded.
class Library {
  public:
    explicit Library(const void *address) {
        Dl_info info{};
        if (dladdr(address, &info) != 0) {
            handle_ = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
        }
        if (handle_ == nullptr) {
            handle_ = dlopen(nullptr, RTLD_LAZY);
        }
    }
    ~Library() {
        dlclose(handle_);
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    template <typename Function>
    Function Find(const std::string &name) const {
        return reinterpret_cast<Function>(dlsym(handle_, name.c_str()));
    }

  private:
    void *handle_ = nullptr;
};

Bindings Bind(const Library &library) {
    Bindings bindings;
    for (uint32_t operation = 0; operation < MUND_OPERATION_COUNT; ++operation) {
        const std::string name = std::string("LyrHost_Kes_") + MundOperationName(operation);
        bindings[operation] = {library.Find<OperationFunc>(name),
                               library.Find<FreeFunc>(name + "_free")};
    }
    return bindings;
}

// The one service, and the calls that run in it.
class Service {
  public:
    bool Open(const Bindings &bindings) {
        const std::lock_guard lock(mutex_);
        if (open_) {
            return false;
        }
        bindings_ = bindings;
        open_ = true;
        return true;
    }

    // Refuses new calls and waits for those that run, unless the engine is strict.
    bool Close() {
        std::unique_lock lock(mutex_);
        if (!open_) {
            return false;
        }
        open_ = false;
        ended_.wait(lock, [this] { return calls_ == 0 || standin::Strict(); });
        return true;
    }

    // The binding of an operation for a call that begins, if the service is open.
    std::optional<Binding> BeginCall(uint32_t operation) {
        const std::lock_guard lock(mutex_);
        if (!open_) {
            return std::nullopt;
        }
        ++calls_;
        return bindings_[operation];
    }

    void EndCall() {
        const std::lock_guard lock(mutex_);
        --calls_;
        ended_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable ended_;
    bool open_ = false;
    uint32_t calls_ = 0;
    Bindings bindings_;
};

Service &service = standin::Lasting<Service>();

struct EndOfCall {
    ~EndOfCall() {
        service.EndCall();
    }
};

// What operations may leave behind of their requests, to be worked off by the reconciliation.
constexpr size_t kMostHeld = 64u << 20;

bool LeavesWork(uint32_t operation) {
    return operation == MUND_OP_Reconciliation || operation == MUND_OP_BatchReconciliation;
}

// A request that comes alone is taken whatever its size.
bool IsTooMuch(uint32_t requestSize) {
    const size_t held = standin::HeldForRequests();
    return held != 0 && held + requestSize > kMostHeld;
}

uint32_t Run(const Binding &binding, uint32_t operation, const void *request, void **message) {
    if (!LeavesWork(operation)) {
        return binding.run(request, message);
    }
    const standin::RequestScope scope;
    return binding.run(request, message);
}

using Bytes = std::span<const std::byte>;
using Memory = std::unique_ptr<std::byte[]>;

// Aligned for any record, and ending where the bytes end, so that memory checkers see every read
// beyond them. Never null.
Memory Copy(Bytes bytes) {
    auto memory = std::make_unique_for_overwrite<std::byte[]>(bytes.size());
    std::ranges::copy(bytes, memory.get());
    return memory;
}

struct Request {
    Memory asRead;
    Memory records;  // of a batch
};

std::optional<Request> UnmarshalBatch(Bytes wire) {
    constexpr size_t kHeader = offsetof(LyrKesBatchReconReq, records);
    if (wire.size() < kHeader) {
        return std::nullopt;
    }
    LyrKesBatchReconReq batch{};
    std::memcpy(&batch, wire.data(), kHeader);
    const Bytes records = wire.subspan(kHeader);
    if (records.size() != sizeof(LyrKesReconRecord) * batch.count) {
        return std::nullopt;
    }
    Request request{nullptr, Copy(records)};
    batch.records = reinterpret_cast<const LyrKesReconRecord *>(request.records.get());
    request.asRead = Copy(std::as_bytes(std::span(&batch, 1)));
    return request;
}

std::optional<Request> Unmarshal(uint32_t operation, Bytes wire) {
    if (operation == MUND_OP_BatchReconciliation) {
        return UnmarshalBatch(wire);
    }
    if (wire.size() != MundRequestSize(operation)) {
        return std::nullopt;
    }
    Request request;
    request.asRead = Copy(wire);
    return request;
}

MundStatus StoreReply(const void *message, void *reply, uint32_t replyCapacity,
                      uint32_t *replySize) {
    const size_t size = standin::BlockSize(message);
    if (size > replyCapacity) {
        return MUND_STATUS_REPLY_TOO_LONG;
    }
    std::memcpy(reply, message, size);
    *replySize = static_cast<uint32_t>(size);
    return MUND_STATUS_OK;
}

bool IsValid(const LyrKesRpcServerRegInfo &info) {
    LyrKesRpcServerRegInfo expected{};
    expected.serviceNumber = MUND_SERVICE_NUMBER;
    std::strcpy(expected.serviceName, MUND_SERVICE_NAME);
    return std::memcmp(&info, &expected, sizeof(info)) == 0;
}

}  // namespace

uint32_t RegRavelRpcServerToKes(const LyrKesRpcServerRegInfo *info) {
    if (standin::CallFails("RegRavelRpcServerToKes") || info == nullptr || !IsValid(*info)) {
        return 1;
    }
    const Library caller(__builtin_return_address(0));
    return service.Open(Bind(caller)) ? 0 : 2;
}

uint32_t RavelRpcServerUnReg(const char *serviceName) {
    if (standin::CallFails("RavelRpcServerUnReg") || serviceName == nullptr ||
        std::strcmp(serviceName, MUND_SERVICE_NAME) != 0) {
        return 1;
    }
    return service.Close() ? 0 : 1;
}

MundStatus MundCall(uint32_t operation, const void *request, uint32_t requestSize, void *reply,
                    uint32_t replyCapacity, uint32_t *replySize, uint32_t *result) {
    *replySize = 0;
    if (operation >= MUND_OPERATION_COUNT) {
        return MUND_STATUS_NO_OPERATION;
    }
    const std::optional<Binding> binding = service.BeginCall(operation);
    if (!binding) {
        return MUND_STATUS_NO_SERVICE;
    }
    const EndOfCall end;
    if (!binding->Bound()) {
        return MUND_STATUS_NO_OPERATION;
    }
    if (LeavesWork(operation) && IsTooMuch(requestSize)) {
        return MUND_STATUS_BUSY;
    }
    const std::optional<Request> unmarshalled =
        Unmarshal(operation, {static_cast<const std::byte *>(request), requestSize});
    if (!unmarshalled) {
        return MUND_STATUS_BAD_LENGTH;
    }
    void *message = nullptr;
    *result = Run(*binding, operation, unmarshalled->asRead.get(), &message);
    if (message == nullptr) {
        return MUND_STATUS_OK;
    }
    const MundStatus status = StoreReply(message, reply, replyCapacity, replySize);
    binding->release(message);
    return status;
}
