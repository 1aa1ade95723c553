// testable.h - marks private functions that the unit tests call.
//
// They have default visibility in the objects, and the version script keeps them out of the
// library's interface: only the library that the tests link shows them.
#ifndef KOUTIL_INTERNAL_TESTABLE_H
#define KOUTIL_INTERNAL_TESTABLE_H

#define KO_TESTABLE __attribute__((visibility("default")))

#endif
