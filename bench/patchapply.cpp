// The updater's patch applier with bspatch's arguments, linking nothing but the applier, so that
// the benchmark measures the applier's time and memory, not a toolkit's:
//   patchapply OLD NEW PATCH
#include "update/patchapplier.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fputs("usage: patchapply OLD NEW PATCH\n", stderr);
        return 2;
    }
    if (!applyPatch(argv[2], argv[1], argv[3])) {
        std::fputs("patchapply: the patch does not apply\n", stderr);
        return 1;
    }
    return 0;
}
