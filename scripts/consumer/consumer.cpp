// consumer.cpp - a C++ program outside the tree: formats, hashes and reports.
#include <cstdio>
#include <koutil/koutil.hpp>

namespace
{

char said[64];

void hear(int logtype, char *str)
{
    VoSnprintf(said, sizeof said, "%d %s", logtype, str);
}

} // namespace

int main()
{
    WriteLog = hear;
    Error_Output("%s", "literal");
    const ko::Hash64 state(XXH64_createState());
    XXH64_reset(state.get(), 0);
    XXH64_update(state.get(), "a", 1);
    const bool right = XXH64_digest(state.get()) == 0xD24EC4F1A98C6E5BULL;
    if (!right || ko::view(said) != "3 literal") {
        return 1;
    }
    puts("koutil works");
    return 0;
}
