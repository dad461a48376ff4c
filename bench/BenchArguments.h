// The command line of a benchmark program: `--flag NUMBER` pairs, each flag
// one that the program names.  Anything else prints the usage line, built
// from the flags, and ends the program with status 2.
#ifndef KELMSG_BENCH_BENCHARGUMENTS_H_
#define KELMSG_BENCH_BENCHARGUMENTS_H_

#include <cstdint>
#include <initializer_list>
#include <string>

struct BenchFlag {
  std::string name;       // "--file-size"
  std::string valueName;  // "BYTES", for the usage line
  std::uintmax_t* value;  // keeps its default unless the flag is given
  std::uintmax_t least = 0;
};

void ReadBenchArguments(int argc, char** argv, const std::string& program,
                        std::initializer_list<BenchFlag> flags);

#endif  // KELMSG_BENCH_BENCHARGUMENTS_H_
