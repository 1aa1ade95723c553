// literal.h - hands a string literal to a hook that takes `char *`.
//
// The hook types are fixed as taking a writable pointer although the hooks only read.
#ifndef KOUTIL_INTERNAL_LITERAL_H
#define KOUTIL_INTERNAL_LITERAL_H

namespace koutil
{

inline char *literal(const char *text)
{
    return const_cast<char *>(text);
}

} // namespace koutil

#endif
