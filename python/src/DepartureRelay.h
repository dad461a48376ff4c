// DepartureRelay: the registry's one disconnect handler for an application:
// tells the application's verified transfers (when it has them) and then
// its Python callable about every process that leaves the bus.
#ifndef KELMSG_PYTHON_DEPARTURERELAY_H_
#define KELMSG_PYTHON_DEPARTURERELAY_H_

#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <pybind11/pybind11.h>

#include "HandlerCalls.h"

class DepartureRelay : public KelMsgBBDisconnectHandler {
 public:
  // `transfers` may be null; both it and `callable` are lent.
  DepartureRelay(HandlerCalls& calls, const pybind11::object& callable,
                 const KelMsgBBDisconnectHandler* transfers)
      : m_calls(calls), m_callable(callable), m_transfers(transfers) {}

  void DetectDisconnection(int pid, const char* app, const char* host,
                           const char* user) const override;

 private:
  HandlerCalls& m_calls;
  const pybind11::object& m_callable;
  const KelMsgBBDisconnectHandler* m_transfers;
};

#endif  // KELMSG_PYTHON_DEPARTURERELAY_H_
