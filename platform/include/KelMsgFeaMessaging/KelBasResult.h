// Result codes of the base library's XML operations.
//
// S_OK is success; E_FAIL is the one failure code.  Both are guarded so that a
// translation unit that already has them from another header keeps that
// definition: only comparisons with S_OK carry meaning.
#ifndef KELMSGFEAMESSAGING_KELBASRESULT_H_
#define KELMSGFEAMESSAGING_KELBASRESULT_H_

#ifndef S_OK
#define S_OK 0
#endif

#ifndef E_FAIL
#define E_FAIL (-1)
#endif

#endif  // KELMSGFEAMESSAGING_KELBASRESULT_H_
