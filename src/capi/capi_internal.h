// Shared machinery of the C interface: the handle table, the thread's last error, the guard that
// turns every C++ exception into a status, and the helpers that hand strings and blocks out.
#ifndef QUELWORKS_SRC_CAPI_CAPI_INTERNAL_H
#define QUELWORKS_SRC_CAPI_CAPI_INTERNAL_H

#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "quelworks/quelworks_c.h"

namespace quelworks::capi {

// What a handle stands for. Every handle records its kind, so a handle of one kind passed where
// another is expected is refused.
enum class Kind : std::uint8_t { Strings = 1, Port, Async, Boot, Crc, Lut, IniRecords, Transform };

// The handle table. A handle's value encodes a slot and that slot's generation; it is never
// dereferenced. A freed slot's generation moves on, so a stale handle no longer matches, and a
// made-up value matches nothing. Objects are held by shared_ptr: a call that looked a handle up
// keeps its object alive even if another thread frees the handle meanwhile.
void* registerObject(Kind kind, std::shared_ptr<void> object);
std::shared_ptr<void> findObject(const void* handle, Kind kind);
// Removes the handle and returns its object (null when the handle is not a live one of `kind`).
std::shared_ptr<void> releaseObject(const void* handle, Kind kind);
// The number of live handles (for leak checks in the tests).
std::size_t liveHandleCount();

template <class T>
std::shared_ptr<T> find(const void* handle, Kind kind) {
    return std::static_pointer_cast<T>(findObject(handle, kind));
}

// The thread's last error.
qw_status fail(qw_status status, std::string_view message);
void clearError();

// Runs `body` (a callable returning qw_status), clears the error on success and turns every
// exception into a status with its message. Nothing escapes.
template <class Body>
qw_status guarded(Body&& body) noexcept {
    try {
        qw_status status = body();
        if (status == QW_OK) clearError();
        return status;
    } catch (const std::bad_alloc&) {
        return fail(QW_ERR_NO_MEMORY, "out of memory");
    } catch (const std::exception& e) {
        try {
            return fail(QW_ERR_INTERNAL, std::string("internal error: ") + e.what());
        } catch (...) {
            return QW_ERR_INTERNAL;
        }
    } catch (...) {
        return fail(QW_ERR_INTERNAL, "internal error: unknown exception");
    }
}

// Looks a handle up or leaves the enclosing guarded body with QW_ERR_INVALID_ARGUMENT.
#define QW_FIND(var, Type, handle, kind)                        \
    auto var = ::quelworks::capi::find<Type>((handle), (kind)); \
    if (!var)                                                   \
    return ::quelworks::capi::fail(                             \
        QW_ERR_INVALID_ARGUMENT,                                \
        (handle) ? "invalid, closed or wrong-kind handle: " #handle : "null handle: " #handle)

#define QW_REQUIRE(condition, message) \
    if (!(condition)) return ::quelworks::capi::fail(QW_ERR_INVALID_ARGUMENT, (message))

// Creates the object and a handle for it.
template <class T, class Handle>
qw_status createHandle(Kind kind, std::shared_ptr<T> object, Handle** out) {
    *out = static_cast<Handle*>(registerObject(kind, std::move(object)));
    return QW_OK;
}

// Frees a handle: NULL is QW_OK, a stale or wrong-kind one QW_ERR_INVALID_ARGUMENT.
qw_status freeHandle(const void* handle, Kind kind);

// Copies `text` into a caller's buffer (see the header's rule for strings out).
qw_status copyOut(std::string_view text, char* buffer, std::int32_t size, std::int32_t* needed);
// A malloc'ed copy of `length` bytes (plus a zero byte) for the caller to qw_free; null for 0
// bytes when `terminate` is false.
void* allocCopy(const void* data, std::size_t length, bool terminate);

// Checks of the common argument shapes.
qw_status checkBuffer(const void* data, std::int32_t length, const char* what);

// A list of strings behind a qw_strings handle.
struct StringList {
    std::vector<std::string> items;
};
qw_status makeStrings(std::vector<std::string> items, qw_strings** out);

// Progress callbacks. The C++ callbacks are plain function pointers run on the caller's thread,
// so the C callback and its user pointer travel in a thread-local slot set around the call.
struct ProgressContext {
    qw_progress_fn callback = nullptr;
    void* user = nullptr;
    bool cancelled = false;
};
class ProgressScope {
public:
    explicit ProgressScope(ProgressContext* context);
    ~ProgressScope();
    ProgressScope(const ProgressScope&) = delete;
    ProgressScope& operator=(const ProgressScope&) = delete;

private:
    ProgressContext* previous;
};
// Trampolines with the C++ callback signatures, forwarding to the thread's current context.
bool progressTrampolineBool(int done, int total);
void progressTrampolineVoid(int done, int total);

}  // namespace quelworks::capi

#endif  // QUELWORKS_SRC_CAPI_CAPI_INTERNAL_H
