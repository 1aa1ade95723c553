/* sid_subr.h - security identifiers (SIDs) and their relation to POSIX ids.
 *
 * A SID has a text form, "S-1-5-21-1-2-3-1000" (revision, authority, sub-authorities, in decimal),
 * and a binary form of 8 + 4 * n bytes:
 *
 *     offset  size  field
 *     0       1     revision
 *     1       1     number of sub-authorities, n
 *     2       6     identifier authority, big-endian
 *     8       4*n   sub-authorities, 32 bits each, little-endian
 *
 * POSIX ids stand in the last sub-authority, the relative identifier (RID): user u has the RID
 * 2u + 1000, group g the RID 2g + 1001, so even RIDs are users and odd ones groups.
 *
 * Thread safety:  the functions have no state; any thread may call them. DomainSid and DomainSidLen
 *                 belong to the host.
 */
#ifndef KOUTIL_SID_SUBR_H
#define KOUTIL_SID_SUBR_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Sub-authorities that binary_sid accepts, and the bytes of its longest result. */
#define SID_MAX_SUBAUTHS 64
#define SID_BINARY_SIZE  264

/* Bytes that hold the text of any binary SID, the terminator included. */
#define SID_TEXT_SIZE (255 * 11 + 32)

/* Storage for the host's domain SID and its length; this library neither fills nor reads it. */
KO_API extern char DomainSid[256];
KO_API extern int DomainSidLen;

/* Read the two bytes at `ptr` as a little-endian number into *us. */
KO_API void voGetshortLittleEndian(unsigned char *ptr, uint16_t *us);

/* Write *us to the two bytes at `ptr`, least significant first. */
KO_API void voPutshortLittleEndian(uint16_t *us, unsigned char *ptr);

/* Read the four bytes at `ptr` as a little-endian number into *ul. */
KO_API void voGetlongLittleEndian(unsigned char *ptr, uint32_t *ul);

/* Write *us to the four bytes at `ptr`, least significant first. */
KO_API void voPutlongLittleEndian(uint32_t *us, unsigned char *ptr);

/* Map a user id to its RID.
 *
 * Returns 0, or -1 with *rid untouched when the RID does not fit in 32 bits. */
KO_API int uid2rid(uint32_t uid, uint32_t *rid);

/* Map a group id to its RID; results as for uid2rid. */
KO_API int gid2rid(uint32_t gid, uint32_t *rid);

/* Returns the POSIX id of `rid`, with 1 in *isgroup for a group and 0 for a user; `isgroup` is
 * optional. The RIDs below 1000, which no id has, give large ids. */
KO_API uint32_t rid2id(uint32_t rid, int *isgroup);

/* Write the text of the root identity's SID: the administrator of the domain, `domain_sid` followed
 * by "-500", with `using_active_directory`; else the local system, "S-1-5-18".
 *
 * `sid` must hold 9 bytes and, with `using_active_directory`, the length of `domain_sid` and 5.
 * `domain_sid` is not looked at without it. */
KO_API void rootsid(char *sid, const char *domain_sid, int using_active_directory);

/* Returns 1 if the SID text `sid` is a root identity, else 0. The local system always is. Of the
 * others the last number decides: 500 with `using_active_directory`, else 1000, the RID of user 0.
 */
KO_API int isrootsid(const char *sid, int using_active_directory);

/* Convert the SID text `in_sidstr` to its binary form in `out_binary`, which holds SID_BINARY_SIZE
 * bytes.
 *
 * The text is "S-" or "s-", the revision, '-', the authority and any number of '-' and
 * sub-authority. A number ends at its first character that is no digit, and the next begins after
 * the next '-', wherever it stands; a number without digits is 0. Numbers keep the low bits that
 * their field holds.
 *
 * Returns the length of the binary form; or 0, with nothing written, when the text is no SID or has
 * more than SID_MAX_SUBAUTHS sub-authorities. */
KO_API int binary_sid(const char *in_sidstr, unsigned char *out_binary);

/* Returns what binary_sid returns for `str`: other than 0 for the text of a SID. */
KO_API int issid(const char *str);

/* Write the text of the binary SID at `ptr` to `sidstr`; "Invalid SID" for a null `ptr`.
 *
 * Reads 8 + 4 * n bytes, n being the count in the second byte. `sidstr` must hold the text and its
 * terminator: at most 22 + 11 * n bytes, for which SID_TEXT_SIZE is enough with every n; 12 bytes
 * for a null `ptr`. */
KO_API void ascii_sid(unsigned char *ptr, char *sidstr);

KO_END_DECLS

#endif
