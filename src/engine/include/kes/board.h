/* Where the engine runs, and what time it is there. */
#ifndef KES_BOARD_H
#define KES_BOARD_H

#include <assert.h>

#include "kes/api.h"

KES_BEGIN_DECLS

/* Stores the master board's IPv4 address in host byte order. Returns 0, or 1 if unknown. */
KES_API uint32_t TOV_DevmGetMasterBoardIp(uint32_t *address);
KES_API uint32_t TovCurrentSlotId(void);
KES_API uint32_t TovCurrentCpuId(void);

typedef struct TovDate {
    uint16_t year;
    uint16_t month; /* 1-12 */
    uint32_t day;   /* 1-31 */
} TovDate;

typedef struct TovTime {
    uint16_t hour;
    uint16_t minute;
    uint16_t second;
} TovTime;

static_assert(sizeof(TovDate) == 8 && sizeof(TovTime) == 6, "date of 8 bytes, time of 6");

/* Stores the board's local date and time of day. Returns 0, or 1 if the clock cannot be read. */
KES_API uint32_t TovTimeGetDatetime(TovDate *date, TovTime *time);

KES_END_DECLS

#endif
