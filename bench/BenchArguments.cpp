#include "BenchArguments.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

[[noreturn]] void ShowUsage(const std::string& program, std::initializer_list<BenchFlag> flags) {
  std::string usage = "usage: " + program;
  for (const BenchFlag& flag : flags)
    usage += " [" + flag.name + " " + flag.valueName + "]";
  std::fprintf(stderr, "%s\n", usage.c_str());
  std::exit(2);
}

}  // namespace

void ReadBenchArguments(int argc, char** argv, const std::string& program,
                        std::initializer_list<BenchFlag> flags) {
  if (argc % 2 == 0)
    ShowUsage(program, flags);
  for (int i = 1; i + 1 < argc; i += 2) {
    const auto flag = std::ranges::find(flags, std::string(argv[i]), &BenchFlag::name);
    const char* text = argv[i + 1];
    const char* end = text + std::strlen(text);
    std::uintmax_t number = 0;
    const auto [stop, error] = std::from_chars(text, end, number);
    if (flag == flags.end() || error != std::errc() || stop != end || number < flag->least)
      ShowUsage(program, flags);
    *flag->value = number;
  }
}
