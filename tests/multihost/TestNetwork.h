// TestNetwork: hosts of a small network on this machine, each a network
// namespace of its own, joined two by two by veth pairs on subnets of their
// own.  Made with `ip` (iproute2), which needs root; Unavailable() says
// whether the machine permits it.  The object owns its namespaces: they go
// with it, and with them the links.
//
//   TestNetwork network({"broker", "solver"});
//   network.Link("broker", "solver");
//   ChildProcess::Exec(network.On("solver") + ...);   // runs there
//   network.Address("broker", "solver")                // broker's, seen from solver
#ifndef KELMSG_TESTS_MULTIHOST_TESTNETWORK_H_
#define KELMSG_TESTS_MULTIHOST_TESTNETWORK_H_

#include <map>
#include <string>
#include <vector>

#include "ScratchDirectory.h"

class TestNetwork {
 public:
  // Why this machine cannot build test networks, in one line; empty when
  // it can.  Tried once per program, after removing the namespaces that
  // killed test programs left behind.
  static const std::string& Unavailable();

  // Hosts without links, their loopback up.  Error() tells what failed.
  explicit TestNetwork(const std::vector<std::string>& hosts);
  ~TestNetwork();
  TestNetwork(const TestNetwork&) = delete;
  TestNetwork& operator=(const TestNetwork&) = delete;

  // Joins two hosts by a link of their own; false (see Error) if that fails.
  bool Link(const std::string& a, const std::string& b);
  // The address by which `from` reaches `to`, over the link between them.
  std::string Address(const std::string& to, const std::string& from) const;
  // The command that runs a program on `host`, in front of the program.
  std::vector<std::string> On(const std::string& host) const;
  // What failed last, in one line.
  const std::string& Error() const { return m_error; }

 private:
  bool Ip(const std::vector<std::string>& arguments);

  ScratchDirectory m_scratch;                       // for what `ip` says
  std::map<std::string, std::string> m_namespaces;  // host -> namespace
  std::map<std::string, std::string> m_addresses;   // "to from" -> address
  int m_links = 0;
  std::string m_error;
};

#endif  // KELMSG_TESTS_MULTIHOST_TESTNETWORK_H_
