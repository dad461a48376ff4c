// The instantiations of the copy-on-write map that the library exports.
// KelMsgBBMaps.h declares them extern, so every client links to this code.
#include <KelMsgFeaMessaging/KelMsgBBMaps.h>

template class cow_Btree<cow_String, KelMsgBBMessage*>;
template class cow_Btree<cow_String, KelMsgBBMessageHandler*>;
template class cow_Btree<int, KelMsgBBMessage*>;

template class cow_BtreeIterator<cow_String, KelMsgBBMessage*>;
template class cow_BtreeIterator<cow_String, KelMsgBBMessageHandler*>;
template class cow_BtreeIterator<int, KelMsgBBMessage*>;
