/* consumer.c - a C program outside the tree: formats, hashes and reports. */
#include <koutil/koutil.h>
#include <stdio.h>
#include <string.h>

static char said[64];

static void hear(int logtype, char *str)
{
    VoSnprintf(said, sizeof said, "%d %s", logtype, str);
}

int main(void)
{
    WriteLog = hear;
    Warn_Output("%s %d", "twelve", 12);
    if (strcmp(said, "2 twelve 12") != 0) {
        return 1;
    }
    if (XXH32("a", 1, 0) != 0x550D7456U || XXH64("a", 1, 0) != 0xD24EC4F1A98C6E5BULL) {
        return 2;
    }
    puts("koutil works");
    return 0;
}
