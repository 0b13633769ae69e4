// switch.h - makes one of the changes that scripts/mutate has put into a file, or none.
//
// RUK_MUTANT in the environment is the number of the change. RUK_MUTANT_SEEN names a file with one
// byte for each change, which becomes 1 when the program comes to the place of the change. Files
// are reached by bare system calls, because tests play many functions themselves.
#ifndef SCRIPTS_MUTATION_SWITCH_H
#define SCRIPTS_MUTATION_SWITCH_H

#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace mutant {

inline int active_number() {
    const char *text = std::getenv("RUK_MUTANT");
    return text == nullptr ? -1 : std::atoi(text);
}

inline unsigned char *seen_bytes() {
    constexpr long kLongest = 1 << 16;
    const char *name = std::getenv("RUK_MUTANT_SEEN");
    if (name == nullptr) {
        return nullptr;
    }
    const long fd = syscall(SYS_openat, AT_FDCWD, name, O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        return nullptr;
    }
    const long bytes =
        syscall(SYS_mmap, nullptr, kLongest, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0L);
    (void)syscall(SYS_close, fd);
    return bytes == -1 ? nullptr : reinterpret_cast<unsigned char *>(bytes);
}

inline const int active = active_number();
inline unsigned char *const seen = seen_bytes();

template <int number>
bool on() {
    if (seen != nullptr) {
        seen[number] = 1;
    }
    return active == number;
}

template <int number, typename T>
T pick(T value, T changed) {
    return on<number>() ? changed : value;
}

template <int number>
const char *pick_text(const char *value, const char *changed) {
    return on<number>() ? changed : value;
}

// A value of the same type that is not this one.
template <typename T>
constexpr T other(T value) {
    if constexpr (std::is_same_v<T, bool>) {
        return !value;
    } else if constexpr (std::is_pointer_v<T>) {
        return nullptr;
    } else {
        static_assert(std::is_arithmetic_v<T> || std::is_enum_v<T>);
        return static_cast<T>(value == static_cast<T>(0) ? 1 : 0);
    }
}

template <int number, typename T>
T other_if(T value) {
    return on<number>() ? other(value) : value;
}

template <typename T>
class Without {
public:
    template <typename... Arguments>
    explicit Without(Arguments &&.../*unused*/) {
    }
};

template <typename T, int number>
class Maybe {
public:
    Maybe() : is_there_(!on<number>()) {
        if (is_there_) {
            new (place_) T;
        }
    }
    template <typename... Arguments>
    explicit Maybe(Arguments &&...arguments) : is_there_(!on<number>()) {
        if (is_there_) {
            new (place_) T(std::forward<Arguments>(arguments)...);
        }
    }
    ~Maybe() noexcept(false) {
        if (is_there_) {
            reinterpret_cast<T *>(place_)->~T();
        }
    }
    Maybe(const Maybe &) = delete;
    Maybe &operator=(const Maybe &) = delete;

private:
    bool is_there_;
    alignas(T) unsigned char place_[sizeof(T)];
};

// a < Less<7>{} < b: with the priority of the operator it takes the left operand, then the right.
template <typename Tag, typename Left>
struct Half {
    Left &&left;
};

#define MUTANT_OPERATOR(TAG, OPERATOR, CHANGED)                                                    \
    template <int number>                                                                          \
    struct TAG {};                                                                                 \
    template <typename Left, int number>                                                           \
    Half<TAG<number>, Left> operator OPERATOR(Left &&left, TAG<number> /*tag*/) {                  \
        return {std::forward<Left>(left)};                                                         \
    }                                                                                              \
    template <int number, typename Left, typename Right>                                           \
    auto operator OPERATOR(Half<TAG<number>, Left> half, Right &&right) {                          \
        using Result = decltype(half.left OPERATOR right);                                         \
        if (on<number>()) {                                                                        \
            return static_cast<Result>(half.left CHANGED right);                                   \
        }                                                                                          \
        return static_cast<Result>(half.left OPERATOR right);                                      \
    }

MUTANT_OPERATOR(Less, <, <=)
MUTANT_OPERATOR(LessEqual, <=, <)
MUTANT_OPERATOR(Greater, >, >=)
MUTANT_OPERATOR(GreaterEqual, >=, >)
MUTANT_OPERATOR(Equal, ==, !=)
MUTANT_OPERATOR(Unequal, !=, ==)
MUTANT_OPERATOR(Plus, +, -)
MUTANT_OPERATOR(Minus, -, +)
MUTANT_OPERATOR(Times, *, +)
MUTANT_OPERATOR(Divided, /, *)
MUTANT_OPERATOR(Modulo, %, /)
MUTANT_OPERATOR(And, &, |)
MUTANT_OPERATOR(Or, |, &)
MUTANT_OPERATOR(ShiftLeft, <<, >>)
MUTANT_OPERATOR(ShiftRight, >>, <<)

#undef MUTANT_OPERATOR

} // namespace mutant

#endif
