// The file that the transfer benchmarks send: bytes that no layer on the
// way can compress or recognise, the same in every run.
#ifndef KELMSG_BENCH_BENCHSOURCEFILE_H_
#define KELMSG_BENCH_BENCHSOURCEFILE_H_

#include <cstdint>
#include <string>

// Writes `size` bytes to `path`; false if the file cannot be written.
bool WriteBenchSourceFile(const std::string& path, std::uintmax_t size);

#endif  // KELMSG_BENCH_BENCHSOURCEFILE_H_
