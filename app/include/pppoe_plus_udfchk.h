/* Validator of user-defined Circuit-ID and Remote-ID format strings.
 *
 * A format is an optional hex part followed by an optional ASCII part in
 * double quotes that ends the string. Every check takes a NUL-terminated
 * string and returns one of the check results below, 0 when it passes. */
#ifndef PPPOE_PLUS_UDFCHK_H
#define PPPOE_PLUS_UDFCHK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Check results of PPPOE_PLUS_UserDfdFmtCheck and the single-rule checks. */
#define PPPOE_PLUS_UDF_CHK_OK 0U                  /* valid */
#define PPPOE_PLUS_UDF_CHK_INNER_ERR 1U           /* null string, unreadable keyword or width */
#define PPPOE_PLUS_UDF_CHK_NO_KEYWORD 2U          /* "%" not followed by a keyword */
#define PPPOE_PLUS_UDF_CHK_BAD_ESCAPE 3U          /* backslash before a non-reserved character */
#define PPPOE_PLUS_UDF_CHK_OPT_MULTI_KW 4U        /* optional part with more than one keyword */
#define PPPOE_PLUS_UDF_CHK_OPT_BAD_KW 5U          /* optional keyword neither svlan nor cvlan */
#define PPPOE_PLUS_UDF_CHK_OPT_NESTED 6U          /* "[" inside an optional part */
#define PPPOE_PLUS_UDF_CHK_OPT_NO_KW 7U           /* optional part without keyword */
#define PPPOE_PLUS_UDF_CHK_UNBALANCED 8U          /* quote or bracket left open or closed twice */
#define PPPOE_PLUS_UDF_CHK_NO_DELIMITER 9U        /* two keywords without a delimiter */
#define PPPOE_PLUS_UDF_CHK_DIFF_MEANINGS 10U      /* optional part repeated right after itself */
#define PPPOE_PLUS_UDF_CHK_TOO_LONG 11U           /* minimum built length above 256 bytes */
#define PPPOE_PLUS_UDF_CHK_QUOTE_NOT_LAST 12U     /* closing quote before the end */
#define PPPOE_PLUS_UDF_CHK_EMPTY_QUOTES 13U       /* two adjacent double quotes */
#define PPPOE_PLUS_UDF_CHK_HEX_BAD_CHAR 14U       /* hex part: not a digit, blank or keyword */
#define PPPOE_PLUS_UDF_CHK_HEX_NUM_OVERFLOW 15U   /* hex part: number above 4294967295 */
#define PPPOE_PLUS_UDF_CHK_HEX_ASCII_KW 16U       /* hex part: ASCII-only keyword */
#define PPPOE_PLUS_UDF_CHK_HEX_BITS 17U           /* hex part: bit count not a multiple of 8 */
#define PPPOE_PLUS_UDF_CHK_LENGTH_TWICE 18U       /* more than one "length" */
#define PPPOE_PLUS_UDF_CHK_LENGTH_LAST 19U        /* format ends with "length" */
#define PPPOE_PLUS_UDF_CHK_CODES 20U

#define PPPOE_PLUS_UDF_FMT_MAX 127U               /* characters of a format string */
#define PPPOE_PLUS_UDF_PART_LEN 128U              /* buffer of one extracted part */
#define PPPOE_PLUS_UDF_MIN_LEN_MAX 256U           /* largest accepted minimum built length */

/* The whole check; the first failing rule wins. */
uint32_t PPPOE_PLUS_UserDfdFmtCheck(const char *fmt);
/* The rules of the ASCII part (escapes over fmt, the rest over asciiPart). */
uint32_t PPPOE_PLUS_UserDfdAsciiFmtCheck(const char *fmt, const char *asciiPart);
/* The rules of the hex part. */
uint32_t PPPOE_PLUS_UserDfdHexFmtCheck(const char *hexPart);

/* 1 for the five reserved characters: '"', '%', '[', '\\', ']'. */
uint32_t PPPOE_PLUS_UserFmtIfResvChar(uint8_t ch);
/* 1 when the format starts with a double quote. */
uint32_t PPPOE_PLUS_UdfIsAllAssic(const char *fmt);

/* Part extractors. out of the ASCII one holds PPPOE_PLUS_UDF_PART_LEN
 * characters. 0, or 1 for a null argument or a part that does not fit. */
uint32_t PPPOE_PLUS_UserFmtGetAsciiFmtStr(const char *fmt, char *out);
uint32_t PPPOE_PLUS_UserFmtGetHexFmtStr(const char *fmt, char *out, uint32_t size);

/* Single-rule checks, in the order of the whole check. */
uint32_t PPPOE_PLUS_UserFmtChkKeyWord(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkQuotationMarks(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkKeyWordsNum(const char *s);
uint32_t PPPOE_PLUS_UserFmtCheckFirstKeyWord(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkNullInQuotationMarks(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkChAfterBlackslash(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkDelimiter(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkSquareparenthesis(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkKeyWordsNumInOptional(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkKeyWordInOptional(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkDiffMeanings(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkChInHex(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkNumInHex(const char *s);
uint32_t PPPOE_PLUS_UserFmtChkKeyWordInHex(const char *s);

/* Minimum built lengths in bytes of an ASCII part and of a hex part; the
 * hex one returns 17 when its bit count is not a multiple of 8. */
uint32_t PPPOE_PLUS_UserFmtGetAsciiMinLen(const char *s, uint32_t *outLen);
uint32_t PPPOE_PLUS_UserFmtGetHexMinLen(const char *s, uint32_t *outLen);

#ifdef __cplusplus
}
#endif
#endif
