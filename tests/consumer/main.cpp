// Exercises a few exported names through the installed package; exits non-zero on a mismatch.
#include <quelworks/quelworks.h>

#include <cstdio>
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
    std::printf("consumer: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
