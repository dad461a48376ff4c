// Natural-order comparison and the process-wide switch that selects it.
#ifndef KELMSGFEAMESSAGING_STRNATCMP_H_
#define KELMSGFEAMESSAGING_STRNATCMP_H_

// Compares like strcmp, except that runs of decimal digits compare by their
// numeric value ("item2" < "item10").  Leading zeros do not change a value;
// when two runs are equal in value the shorter run (fewer leading zeros)
// orders first, so distinct texts never compare equal.  Runs of any length
// are handled without overflow.  Returns <0, 0 or >0.
int strnatcmp(const char* a, const char* b);

// Non-zero when ordered string containers compare with strnatcmp instead of
// strcmp.  0 when the library is loaded.
int atr_getNaturalOrder();
void atr_setNaturalOrder(int natural);

#endif  // KELMSGFEAMESSAGING_STRNATCMP_H_
