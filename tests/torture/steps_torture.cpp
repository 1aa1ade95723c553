// steps_torture.cpp - the steps that crash.py interrupts, one a run, from access("/begin") on:
//
//     steps_torture save FILE NUMBER              makes "generation NUMBER" the first line of FILE
//     steps_torture add NAME                      adds a name to the FSM list of VORNROOT
//     steps_torture log FILE SIZE COUNT FROM TO   logs "line FROM" to "line TO", acknowledging each
//
// What was acknowledged is told on standard output.
#include <koutil/koutil.h>

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

bool acknowledge(const char *what)
{
    char line[32];
    const int length = VoSnprintf(line, sizeof line, "%s\n", what);
    return write(STDOUT_FILENO, line, static_cast<size_t>(length)) == length;
}

bool save(const char *path, const char *number)
{
    KovaCfg_t *cfg = nullptr;
    char message[256];
    char key[] = "generation";
    char *values[] = {const_cast<char *>(number), nullptr};
    return KovaCfgOpen(path, 7, CFGTYPE_WORDS, &cfg, message, sizeof message) == 0 &&
           KovaCfgRemove(cfg, 0) == 0 &&
           KovaCfgInsert(cfg, 0, key, values, nullptr, message, sizeof message) == 0 &&
           KovaCfgSave(cfg, message, sizeof message) == 0 && acknowledge("saved") &&
           KovaCfgClose(&cfg, 0, message, sizeof message) == 0;
}

bool log(char **argv)
{
    bool good = SetupLogFile(argv[0], atoi(argv[1]), atoi(argv[2])) == 1;
    for (int i = atoi(argv[3]); good && i <= atoi(argv[4]); i++) {
        char number[16];
        VoSnprintf(number, sizeof number, "%d", i);
        LogToFile(2, const_cast<char *>("line %d\n"), i);
        good = acknowledge(number);
    }
    CloseLog();
    return good && acknowledge("closed");
}

} // namespace

int main(int argc, char **argv)
{
    (void)access("/begin", F_OK);
    const char *step = argc > 1 ? argv[1] : "";
    if (strcmp(step, "save") == 0 && argc == 4) {
        return save(argv[2], argv[3]) ? 0 : 1;
    }
    if (strcmp(step, "add") == 0 && argc == 3) {
        return FsmListAddName(argv[2]) == 0 && acknowledge("added") ? 0 : 1;
    }
    return strcmp(step, "log") == 0 && argc == 7 && log(argv + 2) ? 0 : 1;
}
