/* A program built against an installed libsbacc, as a user would build it:
 * writes its argument into an area and reads it back. */
#include <sbacc.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    void *fp = NULL;
    boolean_t clean = B_FALSE;
    char back[64] = {0};
    int len = argc == 3 ? (int)strlen(argv[2]) : 0;
    int rc = argc == 3 ? sbacc_open(argv[1], "w", &fp, &clean) : SBACC_E_PARAM;
    if (rc == 0 && (rc = sbacc_write_size(0, fp)) == 0 && (rc = sbacc_write(argv[2], len, 0, fp)) == len)
        rc = sbacc_read(back, (int)sizeof back - 1, 0, fp);
    if (fp != NULL) sbacc_close(fp);
    if (rc != len || strcmp(back, argv[2]) != 0) {
        fprintf(stderr, "consumer: %s (%d)\n", sbacc_code_name(rc), rc);
        return 1;
    }
    printf("%s\n", back);
    return 0;
}
