// The instantiations of the copy-on-write map that the library exports.  The
// headers declare them extern, so every client links to this code.
#include <KelMsgFeaMessaging/cow_Btree.h>
#include <KelMsgFeaMessaging/cow_BtreeIterator.h>
#include <KelMsgFeaMessaging/cow_String.h>

template class cow_Btree<cow_String, KelMsgBBMessage*>;
template class cow_Btree<cow_String, KelMsgBBMessageHandler*>;
template class cow_Btree<int, KelMsgBBMessage*>;

template class cow_BtreeIterator<cow_String, KelMsgBBMessage*>;
template class cow_BtreeIterator<cow_String, KelMsgBBMessageHandler*>;
template class cow_BtreeIterator<int, KelMsgBBMessage*>;
