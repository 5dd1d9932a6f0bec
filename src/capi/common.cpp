// Errors, version, memory, the handle table and string lists of the C interface.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "capi/capi_internal.h"

namespace quelworks::capi {
namespace {

thread_local std::string lastError;

// Handle values: generation in the high half, slot number + 1 in the low half, so that no live
// handle is null and a value from a freed slot differs from the slot's next handle.
#if UINTPTR_MAX > 0xFFFFFFFFu
constexpr unsigned kSlotBits = 32;
#else
constexpr unsigned kSlotBits = 20;
#endif
constexpr std::uintptr_t kSlotMask = (std::uintptr_t{1} << kSlotBits) - 1;
constexpr std::uintptr_t kGenerationLimit = std::uintptr_t{1}
                                            << (sizeof(std::uintptr_t) * 8 - kSlotBits);

struct Slot {
    std::uintptr_t generation = 1;
    Kind kind = Kind::Strings;
    std::shared_ptr<void> object;  // null while the slot is free
};

struct Table {
    std::mutex mutex;
    std::vector<Slot> slots;
    std::vector<std::size_t> freeSlots;
    std::size_t live = 0;
};

Table& table() {
    // Never destroyed: handles may still be freed while the process exits.
    static Table* instance = new Table;
    return *instance;
}

bool decode(const void* handle, std::size_t* slot, std::uintptr_t* generation) {
    auto value = reinterpret_cast<std::uintptr_t>(handle);
    std::uintptr_t low = value & kSlotMask;
    if (low == 0) return false;
    *slot = static_cast<std::size_t>(low - 1);
    *generation = value >> kSlotBits;
    return true;
}

}  // namespace

void* registerObject(Kind kind, std::shared_ptr<void> object) {
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    std::size_t index;
    if (!t.freeSlots.empty()) {
        index = t.freeSlots.back();
        t.freeSlots.pop_back();
    } else {
        if (t.slots.size() >= kSlotMask) throw std::bad_alloc();
        t.slots.emplace_back();
        index = t.slots.size() - 1;
    }
    Slot& s = t.slots[index];
    s.kind = kind;
    s.object = std::move(object);
    ++t.live;
    return reinterpret_cast<void*>((s.generation << kSlotBits) | (index + 1));
}

std::shared_ptr<void> findObject(const void* handle, Kind kind) {
    std::size_t index;
    std::uintptr_t generation;
    if (!decode(handle, &index, &generation)) return nullptr;
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    if (index >= t.slots.size()) return nullptr;
    const Slot& s = t.slots[index];
    if (!s.object || s.generation != generation || s.kind != kind) return nullptr;
    return s.object;
}

std::shared_ptr<void> releaseObject(const void* handle, Kind kind) {
    std::size_t index;
    std::uintptr_t generation;
    if (!decode(handle, &index, &generation)) return nullptr;
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    if (index >= t.slots.size()) return nullptr;
    Slot& s = t.slots[index];
    if (!s.object || s.generation != generation || s.kind != kind) return nullptr;
    std::shared_ptr<void> object = std::move(s.object);
    s.object.reset();
    // A slot whose generations are used up is retired instead of being reused.
    if (++s.generation < kGenerationLimit) t.freeSlots.push_back(index);
    --t.live;
    return object;
}

std::size_t liveHandleCount() {
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.live;
}

qw_status freeHandle(const void* handle, Kind kind) {
    if (handle == nullptr) {
        clearError();
        return QW_OK;
    }
    std::shared_ptr<void> object = releaseObject(handle, kind);
    if (!object)
        return fail(QW_ERR_INVALID_ARGUMENT, "invalid, already freed or wrong-kind handle");
    // The object is destroyed here, unless a call on another thread still holds it.
    object.reset();
    clearError();
    return QW_OK;
}

qw_status fail(qw_status status, std::string_view message) {
    try {
        lastError.assign(message.data(), message.size());
    } catch (...) {
        lastError.clear();
    }
    return status;
}

void clearError() {
    lastError.clear();
}

qw_status copyOut(std::string_view text, char* buffer, std::int32_t size, std::int32_t* needed) {
    if (size < 0) return fail(QW_ERR_INVALID_ARGUMENT, "negative buffer size");
    if (buffer == nullptr && size > 0) return fail(QW_ERR_INVALID_ARGUMENT, "null buffer");
    if (text.size() >= static_cast<std::size_t>(INT32_MAX))
        return fail(QW_ERR_NO_MEMORY, "text too long for a 32-bit size");
    auto required = static_cast<std::int32_t>(text.size() + 1);
    if (needed) *needed = required;
    if (size < required)
        return fail(QW_ERR_BUFFER_TOO_SMALL,
                    "buffer too small: " + std::to_string(required) + " bytes needed");
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return QW_OK;
}

void* allocCopy(const void* data, std::size_t length, bool terminate) {
    if (length == 0 && !terminate) return nullptr;
    void* block = std::malloc(length + (terminate ? 1 : 0));
    if (block == nullptr) throw std::bad_alloc();
    if (length) std::memcpy(block, data, length);
    if (terminate) static_cast<char*>(block)[length] = '\0';
    return block;
}

qw_status checkBuffer(const void* data, std::int32_t length, const char* what) {
    if (length < 0) return fail(QW_ERR_INVALID_ARGUMENT, std::string("negative length: ") + what);
    if (data == nullptr && length > 0)
        return fail(QW_ERR_INVALID_ARGUMENT, std::string("null pointer: ") + what);
    return QW_OK;
}

qw_status makeStrings(std::vector<std::string> items, qw_strings** out) {
    auto list = std::make_shared<StringList>();
    list->items = std::move(items);
    return createHandle(Kind::Strings, std::move(list), out);
}

namespace {
thread_local ProgressContext* currentProgress = nullptr;
}

ProgressScope::ProgressScope(ProgressContext* context) : previous(currentProgress) {
    currentProgress = context;
}

ProgressScope::~ProgressScope() {
    currentProgress = previous;
}

bool progressTrampolineBool(int done, int total) {
    ProgressContext* context = currentProgress;
    if (context == nullptr || context->callback == nullptr) return true;
    if (context->callback(done, total, context->user) != 0) {
        context->cancelled = true;
        return false;
    }
    return true;
}

void progressTrampolineVoid(int done, int total) {
    ProgressContext* context = currentProgress;
    if (context != nullptr && context->callback != nullptr)
        context->callback(done, total, context->user);
}

}  // namespace quelworks::capi

using namespace quelworks::capi;

extern "C" {

QW_C_API const char* QW_CALL qw_last_error_message(void) {
    return lastError.c_str();
}

QW_C_API const char* QW_CALL qw_status_text(qw_status status) {
    switch (status) {
        case QW_OK:
            return "QW_OK";
        case QW_ERR_INVALID_ARGUMENT:
            return "QW_ERR_INVALID_ARGUMENT";
        case QW_ERR_FAILED:
            return "QW_ERR_FAILED";
        case QW_ERR_TIMEOUT:
            return "QW_ERR_TIMEOUT";
        case QW_ERR_BUFFER_TOO_SMALL:
            return "QW_ERR_BUFFER_TOO_SMALL";
        case QW_ERR_NO_MEMORY:
            return "QW_ERR_NO_MEMORY";
        case QW_ERR_NOT_AVAILABLE:
            return "QW_ERR_NOT_AVAILABLE";
        case QW_ERR_FORMAT:
            return "QW_ERR_FORMAT";
        case QW_ERR_CANCELLED:
            return "QW_ERR_CANCELLED";
        case QW_ERR_NOT_OPEN:
            return "QW_ERR_NOT_OPEN";
        case QW_ERR_INTERNAL:
            return "QW_ERR_INTERNAL";
        default:
            return "unknown status";
    }
}

QW_C_API const char* QW_CALL qw_version(int32_t* major, int32_t* minor, int32_t* patch) {
    if (major) *major = QW_VERSION_MAJOR;
    if (minor) *minor = QW_VERSION_MINOR;
    if (patch) *patch = QW_VERSION_PATCH;
    return QW_VERSION_STRING;
}

QW_C_API void QW_CALL qw_free(void* block) {
    std::free(block);
}

QW_C_API qw_status QW_CALL qw_strings_count(qw_strings* list, int32_t* count) {
    return guarded([&] {
        QW_FIND(l, StringList, list, Kind::Strings);
        QW_REQUIRE(count, "null pointer: count");
        *count = static_cast<int32_t>(l->items.size());
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_strings_get(qw_strings* list, int32_t index, char* buffer,
                                          int32_t size, int32_t* needed) {
    return guarded([&] {
        QW_FIND(l, StringList, list, Kind::Strings);
        QW_REQUIRE(index >= 0 && static_cast<std::size_t>(index) < l->items.size(),
                   "index out of range");
        return copyOut(l->items[static_cast<std::size_t>(index)], buffer, size, needed);
    });
}

QW_C_API qw_status QW_CALL qw_strings_free(qw_strings* list) {
    return guarded([&] { return freeHandle(list, Kind::Strings); });
}

}  // extern "C"
