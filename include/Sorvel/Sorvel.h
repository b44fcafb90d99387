/* Every public header of Sorvel. */
#ifndef SORVEL_SORVEL_H
#define SORVEL_SORVEL_H

#include <Sorvel/SVBase.h>

#endif /* SORVEL_SORVEL_H */
