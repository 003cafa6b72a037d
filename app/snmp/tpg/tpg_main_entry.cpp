/* The program. */

#include "tpg_main.h"

int main(int argc, char** argv)
{
    return tpg_main(argc, argv);
}
