// Exercises a few exported names through the installed package; exits non-zero on a mismatch.
#include <quelworks/quelworks.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main() {
    int failures = 0;
    if (convertInt(-42) != "-42") ++failures;
    if (convertFloat(3.14159265f) != "3.14159") ++failures;
    RList<char*> names;
    char a[] = "COM1";
    names.push_back(a);
    if (names.begin() == names.end() || std::strcmp(*names.begin(), "COM1") != 0) ++failures;
    names.free();
    // Names given as string literals reach the interface without a cast (built with
    // -Wwrite-strings): a port that does not exist, a table file that does not exist.
    RS232 link;
    link.PortName("quelworks-consumer-no-such-port");
    char* stored = link.PortName();
    if (stored == nullptr || std::strcmp(stored, "quelworks-consumer-no-such-port") != 0)
        ++failures;
    std::free(stored);
    LinearInterpolation table;
    if (!table.InitLUT("quelworks-consumer-no-such-table.txt", 1.0f, 1.0f)) ++failures;
    std::printf("consumer: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
