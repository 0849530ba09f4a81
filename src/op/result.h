#pragma once
// Value-or-error carrier for expected failures. Misuse (taking the value of an error or the
// error of a value) is a programming error: it writes a fixed line to standard error and ends
// the process, so no exception handler can turn it into a result code.

#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

namespace op {

namespace _ {
template <typename T>
struct OkValue {
  T value;
};
template <typename E>
struct ErrValue {
  E error;
};

[[noreturn]] inline void panic(const char* line) {
  std::fprintf(stderr, "%s", line);
  std::fflush(stderr);
  std::terminate();
}
}  // namespace _

template <typename T>
_::OkValue<std::decay_t<T>> Ok(T&& value) {
  return {std::forward<T>(value)};
}
template <typename E>
_::ErrValue<std::decay_t<E>> Err(E&& error) {
  return {std::forward<E>(error)};
}

// Value type of results that carry nothing on success.
struct Unit {};

template <typename T, typename E>
class [[nodiscard]] Result {
 public:
  template <typename U>
  Result(_::OkValue<U>&& ok) : is_ok_(true), engaged_(true) {  // NOLINT: implicit by design
    new (&storage_) T(std::move(ok.value));
  }
  template <typename U>
  Result(_::ErrValue<U>&& err) : is_ok_(false), engaged_(true) {  // NOLINT: implicit by design
    new (&storage_) E(std::move(err.error));
  }

  Result(Result&& other) noexcept(std::is_nothrow_move_constructible_v<T> &&
                                  std::is_nothrow_move_constructible_v<E>)
      : is_ok_(other.is_ok_), engaged_(other.engaged_) {
    if (other.engaged_) {
      if (is_ok_)
        new (&storage_) T(std::move(*other.value_ptr()));
      else
        new (&storage_) E(std::move(*other.error_ptr()));
      other.destroy();
    }
  }
  Result& operator=(Result&& other) noexcept(std::is_nothrow_move_constructible_v<T> &&
                                             std::is_nothrow_move_constructible_v<E>) {
    if (this != &other) {
      destroy();
      is_ok_ = other.is_ok_;
      if (other.engaged_) {
        if (is_ok_)
          new (&storage_) T(std::move(*other.value_ptr()));
        else
          new (&storage_) E(std::move(*other.error_ptr()));
        engaged_ = true;
        other.destroy();
      }
    }
    return *this;
  }
  Result(const Result&) = delete;
  Result& operator=(const Result&) = delete;
  ~Result() { destroy(); }

  bool is_ok() const { return is_ok_; }
  bool is_error() const { return !is_ok_; }
  // Whether the payload is still held (false once it has been moved out).
  bool engaged() const { return engaged_; }

  std::optional<E> error() const {
    if (is_ok_ || !engaged_) return std::nullopt;
    return *error_ptr();
  }

  T unwrap() {
    if (!is_ok_) _::panic("Panic caused by calling unwrap() on Err Result.\n");
    if (!engaged_) _::panic("Panic caused by calling unwrap() on an already unwrapped Result.\n");
    T value(std::move(*value_ptr()));
    destroy();
    return value;
  }

  E unwrap_error() const {
    if (is_ok_) _::panic("Panic caused by calling unwrap_error() on Ok Result.\n");
    if (!engaged_) _::panic("Panic caused by calling unwrap_error() on an already unwrapped Result.\n");
    return *error_ptr();
  }

 private:
  T* value_ptr() { return std::launder(reinterpret_cast<T*>(&storage_)); }
  E* error_ptr() { return std::launder(reinterpret_cast<E*>(&storage_)); }
  const E* error_ptr() const { return std::launder(reinterpret_cast<const E*>(&storage_)); }

  // Destroys the payload once; a moved-out Result owns nothing.
  void destroy() {
    if (!engaged_) return;
    if (is_ok_)
      value_ptr()->~T();
    else
      error_ptr()->~E();
    engaged_ = false;
  }

  bool is_ok_;
  alignas(T) alignas(E) unsigned char storage_[sizeof(T) > sizeof(E) ? sizeof(T) : sizeof(E)];
  bool engaged_;
};

}  // namespace op
