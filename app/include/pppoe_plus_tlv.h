/* Keyword dictionary, field encoders and the user-defined format encoder of
 * the Circuit-ID and Remote-ID tag values. */
#ifndef PPPOE_PLUS_TLV_H
#define PPPOE_PLUS_TLV_H

#include <stdint.h>

#include "pppoe_plus_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PPPOE_PLUS_KEYWORD_NUM 15U        /* entries of the dictionary, end entry included */
#define PPPOE_PLUS_KEYWORD_MAX 14U        /* ids 0 to 13 are keywords; 14 is the end entry */
#define PPPOE_PLUS_KEYWORD_NAME_LEN 32U
#define PPPOE_PLUS_UDF_FMT_LEN 128U       /* a format string, terminator included */
#define PPPOE_PLUS_UDF_OUT_MAX 255U       /* bytes of a built tag value */
#define PPPOE_PLUS_UDF_WORK_LEN 8192U

/* Keyword ids. */
#define PPPOE_PLUS_KW_SYSNAME 0U
#define PPPOE_PLUS_KW_PORTNAME 1U
#define PPPOE_PLUS_KW_PORTTYPE 2U
#define PPPOE_PLUS_KW_IFTYPE 3U
#define PPPOE_PLUS_KW_MAC 4U
#define PPPOE_PLUS_KW_SLOT 5U
#define PPPOE_PLUS_KW_SUBSLOT 6U
#define PPPOE_PLUS_KW_PORT 7U
#define PPPOE_PLUS_KW_SVLAN 8U
#define PPPOE_PLUS_KW_CVLAN 9U
#define PPPOE_PLUS_KW_NSVLAN 10U
#define PPPOE_PLUS_KW_NCVLAN 11U
#define PPPOE_PLUS_KW_LENGTH 12U
#define PPPOE_PLUS_KW_PORTDESC 13U
#define PPPOE_PLUS_KW_END 14U

/* What the format encoder hands to every field encoder. */
typedef struct KeyWordEncodeCtx {
    UserInfo *userInfo;
    const char *fieldFmt;   /* ASCII: "%Ns" or "%0Ns" */
    uint32_t fieldBits;     /* hex: field width in bits */
    uint32_t *bitPos;       /* write position in bits; advanced by the encoder */
    uint8_t *outBuf;        /* zeroed work buffer */
    uint8_t ascii;          /* 1 in a quoted stretch */
} KeyWordEncodeCtx;

typedef uint32_t (*PppoePlusKeyWordEncodeFn)(KeyWordEncodeCtx *ctx);

typedef struct PppoePlusKeyWord {
    uint16_t keyWordId;
    uint16_t fieldSel;
    uint16_t keyWordType;
    uint8_t nameLen;
    PppoePlusKeyWordEncodeFn encode;
    uintptr_t reserved;
    char name[PPPOE_PLUS_KEYWORD_NAME_LEN];
} PppoePlusKeyWord;

/* A user-defined format compiled once for the values it reads when it is
 * compiled (the dictionary; for a format with optional parts, whether the
 * outer and inner VLANs are 0): literal runs and field steps that the
 * encoder walks per frame instead of parsing the format again. */
#define PPPOE_PLUS_UDF_OPS_MAX 130U
#define PPPOE_PLUS_UDF_STEP_FMT_LEN 8U    /* "%09999s" and its terminator */

typedef struct PppoePlusUdfOp {
    uint8_t kind;        /* check, literal run, number or field */
    uint8_t ascii;       /* field: 1 in a quoted stretch */
    uint8_t id;          /* field: keyword id */
    uint8_t count;       /* literal: bytes; number: bytes of the value */
    uint32_t value;      /* literal: offset into lit; number: the value; field: width */
    char fieldFmt[PPPOE_PLUS_UDF_STEP_FMT_LEN];   /* field, ASCII: "%Ns" or "%0Ns" */
} PppoePlusUdfOp;

typedef struct PppoePlusUdfProg {
    uint32_t dictGen;    /* the dictionary generation compiled against; 0: none */
    uint8_t variant;     /* bit 0: outer VLAN 0, bit 1: inner VLAN 0 */
    uint8_t anyVariant;  /* 1: no optional parts, the same for every variant */
    uint8_t walk;        /* 1: encoded by the per-frame walk (a format that fails) */
    uint8_t opCount;
    uint8_t lenStep;     /* 1: the length field is filled in after the walk */
    uint8_t lenAscii;
    uint16_t litLen;
    uint32_t lenWidth;
    char lenFmt[PPPOE_PLUS_UDF_STEP_FMT_LEN];
    uint8_t lit[PPPOE_PLUS_UDF_FMT_LEN];
    PppoePlusUdfOp ops[PPPOE_PLUS_UDF_OPS_MAX];
} PppoePlusUdfProg;

extern PppoePlusKeyWord *g_pppoePlusKeyWordDict;
extern uint8_t g_pppoePlusSystemMac[6];
extern uint32_t g_pppoePlusLengthOffsetBit;

/* Dictionary. */
uint32_t PPPOE_PLUS_InitKeyWordDict(void);
uint32_t PPPOE_PLUS_KeyWordWriteDict(uint16_t id, uint16_t fieldSel, uint16_t keyWordType,
                                     PppoePlusKeyWordEncodeFn encode, uintptr_t reserved, const char *name);

/* Keyword recognition and widths; text is what follows a "%". */
uint32_t PPPOE_PLUS_UserFmtIfKeyWord(const char *text, uint32_t *outId, uint32_t *outConsumed);
uint32_t PPPOE_PLUS_UserFmtGetFieldDftLenAscii(uint32_t id, uint32_t *outLen);
uint32_t PPPOE_PLUS_UserFmtGetFieldDftLenHex(uint32_t id, uint32_t *outLen);
uint32_t PPPOE_PLUS_UserFmtGetFieldDftLen(uint32_t id, uint8_t ascii, uint32_t *outLen);
uint32_t PPPOE_PLUS_UserFmtGetFieldMinLen(const char *text, uint8_t ascii, uint32_t *outLen);

/* Field writers. */
void PPPOE_PLUS_EncodeDigitByBit(uint8_t *buf, uint32_t startBit, uint32_t value, uint32_t bits);
uint32_t PPPOE_PLUS_EncodeDigit(uint32_t value, KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_GetDevSysMac(uint8_t *mac);
void PPPOE_PLUS_MacAddrToStr(const uint8_t mac[6], char *out, uint32_t size);
uint32_t PPPOE_PLUS_GetPortDescByIfIndex(uint32_t ifIndex, char *buf, uint32_t size);

/* Field encoders, one per keyword. */
uint32_t PPPOE_PLUS_EncodeSysName(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodePortName(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodePortType(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeIfType(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeSysMac(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeSlot(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeSubSlot(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodePort(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeXpi(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeXci(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeNXpi(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeNXci(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodeLength(KeyWordEncodeCtx *ctx);
uint32_t PPPOE_PLUS_EncodePortDesc(KeyWordEncodeCtx *ctx);

/* User-defined format encoder. */
uint32_t PPPOE_PLUS_EncodeUdfData(const UserInfo *info, const char *fmt, uint8_t *out, uint32_t *outLen);
/* Compiles fmt for the variant of info (its VLANs being 0 or not). */
uint32_t PPPOE_PLUS_UdfCompile(const char *fmt, const UserInfo *info, PppoePlusUdfProg *prog);
/* 1 when prog was compiled against the current dictionary for the variant
 * of info. */
uint32_t PPPOE_PLUS_UdfProgFits(const PppoePlusUdfProg *prog, const UserInfo *info);
/* Copies the used part of a program. */
void PPPOE_PLUS_UdfProgCopy(PppoePlusUdfProg *dst, const PppoePlusUdfProg *src);
/* As PPPOE_PLUS_EncodeUdfData for the format prog was compiled from (fmt,
 * walked instead when prog says so), the same bytes and the same lines. */
uint32_t PPPOE_PLUS_EncodeUdfProg(const UserInfo *info, const char *fmt, const PppoePlusUdfProg *prog, uint8_t *out,
                                  uint32_t *outLen);
uint32_t PPPOE_PLUS_ReplumeFmtStr(const UserInfo *info, const char *fmt, char *out);
uint32_t PPPOE_PLUS_ReBuildLength(const char *fmt, uint8_t *buf, uint32_t *len);
uint32_t PPPOE_PLUS_EncodeLengthData(uint8_t ascii, uint8_t *buf, uint32_t *len, const char *fieldFmt, uint32_t width);
uint32_t PPPOE_PLUS_UserFmtAtoul(const char *s, uint32_t *outChars, uint32_t *outValue);
uint32_t PPPOE_PLUS_UserFmtGetBytes(uint32_t value, uint8_t *outBytes);

#ifdef __cplusplus
}
#endif
#endif
