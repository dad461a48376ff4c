// KelBus: the inter-process message bus, seven plain functions with C linkage.
//
// (Placeholder declarations: the bus implementation defines the result codes
// and documents each function here.)
#ifndef KELMSGFEAMESSAGING_KELBUS_H_
#define KELMSGFEAMESSAGING_KELBUS_H_

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*KelBusStreamCallback)(void* buffer, int size);
typedef int (*KelBusSizeCallback)(void);
typedef const char* (*KelBusTypeCallback)(void);
typedef void (*KelBusReceiveCallback)(const char* type, const void* buffer, int size);
typedef void (*KelBusDisconnectCallback)(int pid, const char* app, const char* host,
                                         const char* user);

int RegisterCommunicator(const char* name, int* communicatorId);
int DeclareApplicationId(int communicatorId, const char* applicationId, int flag);
int SendRequest(int communicatorId, const char* targetApplication, KelBusStreamCallback stream,
                KelBusSizeCallback size, KelBusTypeCallback type);
int AssociateHandler(int communicatorId, const char* name, KelBusReceiveCallback receive);
int AssociateDisconnectHandler(int communicatorId, const char* name,
                               KelBusDisconnectCallback disconnect);
int BBSysLoopWait(int* watched, int timeout);
int WaitingLoop(int communicatorId, int timeout, int* watched);

#ifdef __cplusplus
}
#endif

#endif  // KELMSGFEAMESSAGING_KELBUS_H_
