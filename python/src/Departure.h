// Departure: a process that left the bus, as its departure record tells
// it; kelmsg.Departure in Python.
#ifndef KELMSG_PYTHON_DEPARTURE_H_
#define KELMSG_PYTHON_DEPARTURE_H_

#include <string>

struct Departure {
  int pid = 0;
  std::string application;
  std::string host;
  std::string user;
};

#endif  // KELMSG_PYTHON_DEPARTURE_H_
