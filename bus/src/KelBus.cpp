// The bus implementation lives here.
#include <KelMsgFeaMessaging/KelBus.h>
