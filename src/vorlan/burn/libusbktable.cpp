#include "vorlan/burn/libusbktable.h"

#include <atomic>
#include <mutex>

#include "platform/dynamiclibrary.h"
#include "utils/trace.h"

namespace {

// An operation of the table that is in force while nothing is bound.
template <typename Function>
struct Unbound;

template <typename Result, typename... Arguments>
struct Unbound<Result (*)(Arguments...)> {
    static Result call(Arguments...) { return Result(); }
};

std::uint32_t unboundLastError() {
    return libusbk::kModuleNotFound;
}

constexpr LibusbkTable makeUnboundTable() {
    LibusbkTable table{};
#define LIBUSBK_UNBOUND(name) table.name = Unbound<decltype(&::name)>::call;
    LIBUSBK_OPERATIONS(LIBUSBK_UNBOUND)
#undef LIBUSBK_UNBOUND
    table.LibK_LastError = unboundLastError;
    return table;
}

constexpr LibusbkTable unboundTable = makeUnboundTable();

std::mutex bindingLock;  // guards all below but the pointer's value
int bindings = 0;
const LibusbkTable* substitute = nullptr;
platform::DynamicLibrary library;
LibusbkTable libraryTable = unboundTable;
std::atomic<const LibusbkTable*> tableInForce{&unboundTable};

bool lookUp(LibusbkTable& table) {
    bool complete = true;
#define LIBUSBK_LOOK_UP(name)                                                \
    table.name = reinterpret_cast<decltype(&::name)>(library.symbol(#name)); \
    if (table.name == nullptr) {                                             \
        TRACE("Failed loading function %s\n", #name);                        \
        complete = false;                                                    \
    }
    LIBUSBK_OPERATIONS(LIBUSBK_LOOK_UP)
#undef LIBUSBK_LOOK_UP
    return complete;
}

const LibusbkTable* findTable() {
    if (substitute != nullptr)
        return substitute;
    if (!library.load("libusbK")) {
        TRACE("libusbK cannot be loaded: %s\n", library.error().c_str());
        return nullptr;
    }
    return lookUp(libraryTable) ? &libraryTable : nullptr;
}

void bind() {
    const LibusbkTable* const table = findTable();
    if (table != nullptr && table->LibK_Startup()) {
        tableInForce = table;
        return;
    }
    if (table != nullptr)
        TRACE("libusbK does not start (ErrorCode: %08Xh)\n", table->LibK_LastError());
    library.unload();
}

void unbind() {
    const LibusbkTable* const table = tableInForce.exchange(&unboundTable);
    if (table != &unboundTable)
        table->LibK_Shutdown();
    library.unload();
}

}  // namespace

const LibusbkTable& libusbkTable() {
    return *tableInForce;
}

void substituteLibusbk(const LibusbkTable* table) {
    const std::lock_guard guard(bindingLock);
    substitute = table;
}

LibusbkBinding::LibusbkBinding() {
    const std::lock_guard guard(bindingLock);
    if (bindings++ == 0)
        bind();
}

LibusbkBinding::~LibusbkBinding() {
    const std::lock_guard guard(bindingLock);
    if (--bindings == 0)
        unbind();
}

bool LibusbkBinding::isBound() {
    return tableInForce != &unboundTable;
}
