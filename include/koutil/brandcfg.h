/* brandcfg.h - the branding file.
 *
 * Product names shown to users can be replaced through the file "oem.inf" in the OEM directory.
 * configure_branding sets the texts below to their defaults and reads the file over them; programs
 * read the texts directly.
 *
 * The file: one keyword a line, perhaps after blanks, followed by one blank or tab and the value,
 * which runs to the end of the line, further blanks included. A value keeps its first 32
 * characters. Other lines are ignored, also keywords without a value and lines that begin with "#";
 * keywords are compared with case. Lines are read up to 255 characters; what is longer counts as a
 * further line.
 *
 *     text           default        keyword
 *     BrandName      "Kovaline"     BrandName
 *     BrandAbbrv     "KOVA"         BrandAbbrv
 *     BrandPrompt    "koadmin"      BrandPrompt
 *     BrandCompany   "Zelkor"       BrandCompanyAbbreviation
 *     BrandBitmap    ""
 *     BrandIcon      OEM directory followed by "/icon.ico", cut at 127 characters
 *
 * Thread safety:  any thread may call configure_branding. The texts are read without a lock, so
 *                 make the first call before other threads read them; later calls write a text only
 *                 if it changes, which happens at most once, when a file has appeared meanwhile.
 */
#ifndef KOUTIL_BRANDCFG_H
#define KOUTIL_BRANDCFG_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Size of every text, its terminator included. */
#define BRAND_TEXT_SIZE 128

/* The product's name. */
KO_API extern char BrandName[BRAND_TEXT_SIZE];
/* Its abbreviation. */
KO_API extern char BrandAbbrv[BRAND_TEXT_SIZE];
/* The prompt of the administration tool. */
KO_API extern char BrandPrompt[BRAND_TEXT_SIZE];
/* The company's short name. */
KO_API extern char BrandCompany[BRAND_TEXT_SIZE];
/* Empty. */
KO_API extern char BrandBitmap[BRAND_TEXT_SIZE];
/* Path of the product's icon. */
KO_API extern char BrandIcon[BRAND_TEXT_SIZE];

/* Stores the value `keyval` of the keyword at position `keyword` of the table into `buf`, of
 * `buflen` bytes. */
typedef void (*keywordFunc_t)(int keyword, char *keyval, char *buf, int buflen);

/* One keyword of the file. */
typedef struct keywordTbl_s {
    char *keyword;      /* as it stands in the file */
    char *buf;          /* the text that receives the value */
    int buflen;         /* 33: how much of it a value may use */
    keywordFunc_t func; /* stores the value; may be handed a staging copy of `buf` */
} keywordTbl_t;

#define BRAND_KEYWORDS 4 /* rows of the table */

/* The keywords, in the order of the texts above. */
KO_API extern keywordTbl_t keywordTbl[BRAND_KEYWORDS];

/* Set the texts to their defaults and read the branding file over them. Once a file has been read
 * this returns at once: later changes of the file are not seen. A file that cannot be opened leaves
 * the defaults and is looked for again by the next call. */
KO_API void configure_branding(void);

KO_END_DECLS

#endif
