// rep_convert.h - conversions of replication records that only the streams use.
#ifndef KOUTIL_INTERNAL_REP_CONVERT_H
#define KOUTIL_INTERNAL_REP_CONVERT_H

#include "internal/testable.h"
#include "koutil/rep_records.h"

KO_BEGIN_DECLS

KO_TESTABLE void swap_rep_header(rep_header_t *header);
KO_TESTABLE void swap_rep_file(rep_file_t *file); // the 96-byte fixed part
KO_TESTABLE void swap_rep_ns_file(rep_ns_file_t *file);
KO_TESTABLE void swap_rep_blob(rep_blob_t *blob);

KO_END_DECLS

#endif
