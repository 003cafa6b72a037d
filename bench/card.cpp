/* A card's MIB library: the document as a local object in .data. */

asm(".data\n"
    ".type jsonmib_" BENCH_PRODUCT ", @object\n"
    ".size jsonmib_" BENCH_PRODUCT ", 9f - jsonmib_" BENCH_PRODUCT "\n"
    "jsonmib_" BENCH_PRODUCT ": .incbin \"" BENCH_DOCUMENT "\"\n"
    "9:\n"
    ".text\n");
