#include "scheduler/symbols.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <elf.h>
#include <fstream>
#include <memory>
#include <vector>

namespace sim {

namespace {

struct Symbol {
    uintptr_t begin;
    size_t size;
    std::string name;
};

std::string readable(const char *mangled) {
    int status = 0;
    const char *name = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string text(status == 0 ? name : mangled); // never given back: free is the product's here
    constexpr char kAnonymous[] = "(anonymous namespace)::";
    for (size_t at = text.find(kAnonymous); at != std::string::npos; at = text.find(kAnonymous)) {
        text.erase(at, strlen(kAnonymous));
    }
    return text;
}

// The program is linked to fixed addresses: what its symbol table says is where things are.
std::vector<Symbol> load_variables() {
    std::ifstream in("/proc/self/exe", std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
    std::vector<Symbol> variables;
    if (file.size() < sizeof(Elf64_Ehdr) || file[EI_CLASS] != ELFCLASS64) {
        return variables;
    }
    const auto &head = *reinterpret_cast<const Elf64_Ehdr *>(file.data());
    const auto *sections = reinterpret_cast<const Elf64_Shdr *>(file.data() + head.e_shoff);
    for (int i = 0; i < head.e_shnum; i++) {
        if (sections[i].sh_type != SHT_SYMTAB) {
            continue;
        }
        const char *names = file.data() + sections[sections[i].sh_link].sh_offset;
        const auto *symbols =
            reinterpret_cast<const Elf64_Sym *>(file.data() + sections[i].sh_offset);
        for (size_t k = 0; k < sections[i].sh_size / sizeof(Elf64_Sym); k++) {
            if (ELF64_ST_TYPE(symbols[k].st_info) == STT_OBJECT && symbols[k].st_size > 0) {
                variables.push_back({.begin = symbols[k].st_value,
                                     .size = symbols[k].st_size,
                                     .name = readable(names + symbols[k].st_name)});
            }
        }
    }
    return variables;
}

} // namespace

std::string variable_at(const void *address) {
    static const std::vector<Symbol> variables = load_variables();
    const auto value = reinterpret_cast<uintptr_t>(address);
    for (const Symbol &variable : variables) {
        if (value - variable.begin < variable.size) {
            const size_t offset = value - variable.begin;
            return offset == 0 ? variable.name : variable.name + " + " + std::to_string(offset);
        }
    }
    return {};
}

std::string line_at(const void *instruction) {
    char command[128];
    (void)snprintf(command, sizeof command, "addr2line -Cfpse /proc/$PPID/exe 0x%zx 2>/dev/null",
                   reinterpret_cast<size_t>(instruction) - 1); // what returns there is in front
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command, "r"), pclose);
    std::array<char, 512> line{};
    if (pipe == nullptr || fgets(line.data(), line.size(), pipe.get()) == nullptr) {
        return {};
    }
    std::string text(line.data());
    text.resize(text.find_last_not_of('\n') + 1);
    return text.find('?') == 0 ? std::string() : readable(text.c_str());
}

} // namespace sim
