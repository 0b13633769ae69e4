// Numbers on the command line and the hex dump.
//
// An input is a word of four bytes, the dump's base address, and then the words of a command line,
// each ended by a zero byte. All words are parsed as numbers and as the values of a write; the dump
// shows the same bytes. What is printed and logged goes into memory and is read back.
#include "eth_raw/eth_raw.h"
#include "log/log.h"
#include "main/commands/command.h"
#include "main/commands/source.h"
#include "main/main.h"
#include "main/one_frame.h"
#include "mem/pool_counts.h"
#include "surroundings.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kLongestNumber = 8; // hexadecimal digits that fit whatever they are
constexpr size_t kBytesPerLine = 16;
constexpr size_t kAddressDigits = 8;

// Standard output, for its lifetime, is a block of memory.
class CapturedOutput {
public:
    CapturedOutput() : before_(stdout) {
        stdout = open_memstream(&text_, &size_);
        require(stdout != nullptr, "there is memory for the output");
    }
    ~CapturedOutput() {
        (void)fclose(stdout);
        stdout = before_;
        std::free(text_);
    }
    CapturedOutput(const CapturedOutput &) = delete;
    CapturedOutput &operator=(const CapturedOutput &) = delete;

    std::string_view text() {
        (void)fflush(stdout);
        return {text_, size_};
    }

private:
    FILE *before_;
    char *text_ = nullptr;
    size_t size_ = 0;
};

using Words = std::vector<std::vector<char>>; // each in its own block, with its ending zero

Words split(std::string_view bytes) {
    Words words;
    while (!bytes.empty()) {
        const size_t end = std::min(bytes.find('\0'), bytes.size());
        std::vector<char> word(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(end));
        word.push_back('\0');
        word.shrink_to_fit();
        words.push_back(std::move(word));
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
    return words;
}

// The value of a word that is nothing but digits of the base; false for any other word.
bool plain_value(const char *word, uint32_t base, uint64_t &value) {
    constexpr std::string_view digits = "0123456789abcdef";
    value = 0;
    for (const char *c = word; *c != '\0'; c++) {
        const size_t digit = digits.find(static_cast<char>(tolower(static_cast<uint8_t>(*c))));
        if (digit >= base) {
            return false;
        }
        value = value * base + digit;
    }
    return *word != '\0' && strlen(word) <= kLongestNumber;
}

std::string hex_of(uint8_t byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    return {digits[byte >> 4], digits[byte & 15]};
}

void check_numbers(const char *word) {
    const uint32_t hex = parse_hex(word);
    const uint32_t decimal = parse_decimal(word);
    const int index = parse_index(word);
    uint64_t value = 0;
    if (plain_value(word, 16, value)) {
        require(hex == value, "hexadecimal digits give their value");
    }
    if (plain_value(word, 10, value)) {
        require(decimal == value && index == static_cast<int>(value),
                "decimal digits give their value");
    }
    if (strpbrk(word, "0123456789abcdefABCDEF") == nullptr) {
        require(hex == 0 && decimal == 0 && index == 0, "a word without a digit gives 0");
    }
}

void check_values(Words &words) {
    std::vector<char *> argv(kArgOwn, nullptr);
    for (auto &word : words) {
        argv.push_back(word.data());
    }
    const int64_t before = mem_handed_out();
    {
        CapturedOutput output;
        Source source;
        const CommandLine line{.argv = argv, .index = 0, .model = 1, .slot = 1, .addr = 0};
        require(source_from_values(line, source), "values find a buffer");
        require(source.len == std::min<size_t>(words.size(), kCommandBuffer),
                "every value counts, up to a frame");
        std::string expected;
        for (uint32_t i = 0; i < source.len; i++) {
            const auto value = static_cast<uint8_t>(parse_hex(words[i].data()));
            require(source.data()[i] == value, "a value is the low byte of its word");
            expected += hex_of(value) + " ";
        }
        // In the first line, behind its header; a second one complains about too many values.
        const std::string_view line_of_values = output.text().substr(0, output.text().find('\n'));
        require(line_of_values.ends_with(" value :" + expected),
                "the values are shown as they are taken");
    }
    require(mem_handed_out() == before, "the buffer goes back to the pool");
}

// Takes "address: digits and blanks" apart, checks the address and appends the digits.
void read_dump_line(std::string_view line, uint32_t address, std::string &digits) {
    char expected[kAddressDigits + 3];
    (void)snprintf(expected, sizeof expected, "%08x: ", address);
    require(line.starts_with(expected), "a dump line begins with its address");
    for (const char c : line.substr(kAddressDigits + 2)) {
        if (c != ' ') {
            digits += c;
        }
    }
}

void check_dump(std::string_view bytes, uint32_t base_address) {
    // An exact copy: the address sanitizer sees a read of one byte too many.
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    CapturedOutput output;
    process_recvbuf(exact.data(), base_address, static_cast<uint32_t>(exact.size()));
    std::string_view text = output.text();
    if (exact.data() == nullptr) {
        require(text.empty(), "no data, no dump");
        return;
    }
    require(text.starts_with('\n') && text.ends_with('\n'), "the dump stands on lines of its own");
    text.remove_prefix(1);
    std::string digits;
    uint32_t address = base_address;
    for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        read_dump_line(text.substr(0, end), address, digits);
        text.remove_prefix(end + 1);
        address += kBytesPerLine;
    }
    std::string expected;
    for (const uint8_t byte : exact) {
        expected += hex_of(byte);
    }
    require(digits == expected, "the dump shows every byte, in order");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    log_debug = 1;
    Input head(data, size);
    const uint32_t base_address = head.long_word();
    const size_t skipped = std::min(size, sizeof base_address);
    const std::string bytes(data + skipped, data + size);

    Words words = split(bytes);
    for (const auto &word : words) {
        check_numbers(word.data());
    }
    check_values(words);
    check_dump(bytes, base_address);
    return 0;
}
