// Result<T>: a value, or the code of the failure. Every function of the C++ interface
// (<k9erepl/storage.hpp>) answers with one.
#ifndef K9EREPL_RESULT_HPP
#define K9EREPL_RESULT_HPP

#include <k9erepl/codes.h>

#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace k9erepl {

// The names of this interface are those of its version, so that a program may also be linked with
// objects of the library itself.
inline namespace cpp1 {

// A failure as an exception: what() is "RC_NO_MEMORY (1): an allocation failed".
class StorageError : public std::runtime_error {
  public:
    explicit StorageError(std::uint32_t code)
        : std::runtime_error(std::string(K9eReplStorageCodeName(code)) + " (" +
                             std::to_string(code) + "): " + K9eReplStorageCodeText(code)),
          m_code(code) {}

    // One of RC_..., or what a visitor of an enumeration returned.
    std::uint32_t Code() const noexcept { return m_code; }

  private:
    std::uint32_t m_code;  // never RC_OK
};

// What both kinds of result have in common.
class ResultBase {
  public:
    explicit ResultBase(std::uint32_t code) noexcept : m_code(code) {}

    // True for a success.
    bool Ok() const noexcept { return m_code == RC_OK; }
    explicit operator bool() const noexcept { return Ok(); }
    // RC_OK, or the reason of the failure.
    std::uint32_t Code() const noexcept { return m_code; }
    // The code's name and its meaning; static texts.
    const char* Name() const noexcept { return K9eReplStorageCodeName(m_code); }
    const char* Text() const noexcept { return K9eReplStorageCodeText(m_code); }

  protected:
    // Throws StorageError for a failure. A program without exceptions ends with a failure instead.
    void ThrowUnlessOk() const {
        if (!Ok()) {
#if defined(__cpp_exceptions)
            throw StorageError(m_code);
#else
            std::abort();
#endif
        }
    }

  private:
    std::uint32_t m_code;
};

template <typename T>
class [[nodiscard]] Result : public ResultBase {
  public:
    Result(T value) : ResultBase(RC_OK), m_value(std::move(value)) {}
    // REQUIRES: a failure's code.
    static Result Failure(std::uint32_t code) { return Result(FailureTag{}, code); }

    // The value. Throws StorageError for a failure: with Value() alone, a program has errors as
    // exceptions.
    T& Value() & {
        ThrowUnlessOk();
        return *m_value;
    }
    T&& Value() && {
        ThrowUnlessOk();
        return std::move(*m_value);
    }
    // REQUIRES: Ok().
    T& operator*() & noexcept { return *m_value; }
    T* operator->() noexcept { return &*m_value; }

  private:
    struct FailureTag {};
    Result(FailureTag, std::uint32_t code) : ResultBase(code) { assert(code != RC_OK); }

    std::optional<T> m_value;  // empty for a failure
};

template <>
class [[nodiscard]] Result<void> : public ResultBase {
  public:
    explicit Result(std::uint32_t code) noexcept : ResultBase(code) {}

    // Throws StorageError for a failure.
    void Value() const { ThrowUnlessOk(); }
};

}  // namespace cpp1

}  // namespace k9erepl

#endif  // K9EREPL_RESULT_HPP
