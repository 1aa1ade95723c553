// consumer.cpp - a C++ program outside the tree: formats, hashes and reports.
#include <cstdio>
#include <cstring>
#include <koutil/koutil.h>

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
    XXH64_state_t *state = XXH64_createState();
    XXH64_reset(state, 0);
    XXH64_update(state, "a", 1);
    const bool right = XXH64_digest(state) == 0xD24EC4F1A98C6E5BULL;
    XXH64_freeState(state);
    if (!right || strcmp(said, "3 literal") != 0) {
        return 1;
    }
    puts("koutil works");
    return 0;
}
