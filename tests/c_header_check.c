/* Compiled as C: the public header must stand on its own there. */
#include <stdio.h>

#include "sbacc.h"

int main(void)
{
    boolean_t f = sbacc_repair_flag(B_FALSE);
    SBACC_REPAIR_HDD list = {0};
    int rc = sbacc_repair(&list, B_FALSE);
    printf("%s %s %d\n", sbacc_code_name(SBACC_E_NOCOPY), sbacc_code_text(rc), (int)f);
    return (rc == 0 && f == B_FALSE) ? 0 : 1;
}
