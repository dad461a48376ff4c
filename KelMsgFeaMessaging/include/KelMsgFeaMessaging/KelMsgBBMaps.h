// The copy-on-write maps of messages and handlers that the library compiles
// once and exports: the registry's two, keyed by type name, and one keyed by
// number.  A client that includes this header uses the library's code for
// them instead of compiling its own.  The maps own nothing they point to and
// are used from one thread (cow_Btree.h).
#ifndef KELMSGFEAMESSAGING_KELMSGBBMAPS_H_
#define KELMSGFEAMESSAGING_KELMSGBBMAPS_H_

#include <KelMsgFeaMessaging/cow_Btree.h>
#include <KelMsgFeaMessaging/cow_BtreeIterator.h>
#include <KelMsgFeaMessaging/cow_String.h>

class KelMsgBBMessage;
class KelMsgBBMessageHandler;

extern template class cow_Btree<cow_String, KelMsgBBMessage*>;
extern template class cow_Btree<cow_String, KelMsgBBMessageHandler*>;
extern template class cow_Btree<int, KelMsgBBMessage*>;

extern template class cow_BtreeIterator<cow_String, KelMsgBBMessage*>;
extern template class cow_BtreeIterator<cow_String, KelMsgBBMessageHandler*>;
extern template class cow_BtreeIterator<int, KelMsgBBMessage*>;

#endif  // KELMSGFEAMESSAGING_KELMSGBBMAPS_H_
