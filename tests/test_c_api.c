/* The C interface end to end, compiled as C: the reference knowledge base in a fresh bank, through every
 * operation and the result accessors, with the statuses of calls out of order, refused configurations and
 * NULL arguments. Needs a python3 first on PATH that imports the reference package. */
#define _XOPEN_SOURCE 700
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ovra_kb/ovra_kb_c.h"

#define COUNT(array) (sizeof(array) / sizeof((array)[0]))

static const OvraKbCPair SYS[] = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
static const OvraKbCPair OP[] = {{"op_type", "MatMul"}};
static const OvraKbCPair NO_OP_TYPE[] = {{"search_type", "exact"}};
static const OvraKbCPair NOT_UTF8[] = {{"op_type", "\xfe\xfe"}};
static const OvraKbCPair REPEATED[] = {{"op_type", "Conv2D"}, {"op_type", "MatMul"}}; /* the last one counts */
static const OvraKbCPair NULL_VALUE[] = {{"op_type", NULL}};
static const OvraKbCPair NULL_KEY[] = {{NULL, "MatMul"}};
/* The stored record as a search gives it: the chip of SYS and the record's fields, ordered by key. */
static const char *const ROW[][2] = {{"core_num", "8"},
                                     {"keyword", "tile_m128"},
                                     {"knowledge", "split M by 128"},
                                     {"op_type", "MatMul"},
                                     {"soc_version", "soc-a1"}};

static int failures;
static char bank[4096];

static void Check(const char *what, unsigned long got, unsigned long want)
{
    if (got != want) {
        fprintf(stderr, "FAILED %s: got %lu, want %lu\n", what, got, want);
        ++failures;
    }
}

static void CheckText(const char *what, const char *got, const char *want)
{
    if (got == NULL || want == NULL ? got != want : strcmp(got, want) != 0) {
        fprintf(stderr, "FAILED %s: got %s, want %s\n", what, got ? got : "NULL", want ? want : "NULL");
        ++failures;
    }
}

static int RemoveOne(const char *path, const struct stat *info, int type, struct FTW *where)
{
    (void)info, (void)type, (void)where;
    return remove(path);
}

static void RemoveBank(void)
{
    nftw(bank, RemoveOne, 16, FTW_DEPTH | FTW_PHYS);
}

/* A search that must fail with `status` and leave no result. */
static void CheckSearchFails(const char *what, const char *keyword, const OvraKbCPair *config, size_t pairs,
                             OvraKbCStatus status)
{
    OvraKbCResult *result = (OvraKbCResult *)&failures; /* anything but NULL: the call must overwrite it */
    Check(what, OvraKbCSearch(keyword, config, pairs, &result), status);
    Check("a failed search leaves no result", result == NULL, 1);
}

/* Searches with `config`; the rows must be `count` copies of ROW. */
static void CheckSearch(const char *what, const OvraKbCPair *config, size_t pairs, size_t count)
{
    OvraKbCResult *result = NULL;
    size_t row, entry;
    Check(what, OvraKbCSearch("tile_m128", config, pairs, &result), OVRA_KB_C_SUCCESS);
    Check("row count", OvraKbCResultRowCount(result), count);
    for (row = 0; row < count; ++row) {
        Check("entry count", OvraKbCResultEntryCount(result, row), COUNT(ROW));
        for (entry = 0; entry < COUNT(ROW); ++entry) {
            CheckText("key", OvraKbCResultKey(result, row, entry), ROW[entry][0]);
            CheckText("value", OvraKbCResultValue(result, row, entry), ROW[entry][1]);
            CheckText("lookup", OvraKbCResultLookup(result, row, ROW[entry][0]), ROW[entry][1]);
        }
        CheckText("lookup of an absent key", OvraKbCResultLookup(result, row, "knowledgf"), NULL);
        CheckText("lookup of NULL", OvraKbCResultLookup(result, row, NULL), NULL);
        CheckText("key past the last entry", OvraKbCResultKey(result, row, COUNT(ROW)), NULL);
        CheckText("value past the last entry", OvraKbCResultValue(result, row, COUNT(ROW)), NULL);
    }
    Check("entries of a row past the last", OvraKbCResultEntryCount(result, count), 0);
    CheckText("lookup in a row past the last", OvraKbCResultLookup(result, count, "keyword"), NULL);
    OvraKbCResultFree(result);
}

int main(void)
{
    const char *tmp = getenv("TMPDIR");
    OvraKbCPair load[] = {{"op_bank_path", bank}};
    snprintf(bank, sizeof(bank), "%s/ovra_kb_c_test.XXXXXX", tmp ? tmp : "/tmp");
    if (mkdtemp(bank) == NULL) {
        perror("mkdtemp");
        return 1;
    }
    atexit(RemoveBank);

    CheckSearchFails("search before init", "kw", OP, 1, OVRA_KB_C_PYTHON_UNAVAILABLE);
    Check("write before init", OvraKbCWrite("kw", "text", OP, 1, 1), OVRA_KB_C_PYTHON_UNAVAILABLE);
    Check("delete before init", OvraKbCDelete("kw", OP, 1, 1), OVRA_KB_C_PYTHON_UNAVAILABLE);
    Check("finalize before init", OvraKbCFinalize(), OVRA_KB_C_PYTHON_UNAVAILABLE);
    Check("init", OvraKbCInit(SYS, COUNT(SYS), load, COUNT(load)), OVRA_KB_C_SUCCESS);

    Check("write without op_type", OvraKbCWrite("kw", "text", NO_OP_TYPE, 1, 1), OVRA_KB_C_CONFIG_KEY_MISSING);
    CheckSearchFails("search without op_type (NULL, 0)", "kw", NULL, 0, OVRA_KB_C_CONFIG_KEY_MISSING);

    Check("write", OvraKbCWrite("tile_m128", "split M by 128", OP, 1, 2), OVRA_KB_C_SUCCESS);
    CheckSearch("search", OP, 1, 1);
    CheckSearch("search, op_type given twice", REPEATED, COUNT(REPEATED), 1);
    Check("delete", OvraKbCDelete("tile_m128", OP, 1, 1), OVRA_KB_C_SUCCESS);
    CheckSearch("search after the delete", OP, 1, 0);
    Check("rows of no result", OvraKbCResultRowCount(NULL), 0);
    CheckText("key of no result", OvraKbCResultKey(NULL, 0, 0), NULL);
    OvraKbCResultFree(NULL);

    Check("write, keyword NULL", OvraKbCWrite(NULL, "text", OP, 1, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("write, knowledge NULL", OvraKbCWrite("kw", NULL, OP, 1, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("write, pairs NULL", OvraKbCWrite("kw", "text", NULL, 1, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("delete, value NULL", OvraKbCDelete("kw", NULL_VALUE, 1, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("delete, key NULL", OvraKbCDelete("kw", NULL_KEY, 1, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("delete, keyword NULL", OvraKbCDelete(NULL, OP, 1, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    CheckSearchFails("search, keyword NULL", NULL, OP, 1, OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("search, result NULL", OvraKbCSearch("kw", OP, 1, NULL), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("init, sys pairs NULL", OvraKbCInit(NULL, 2, load, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("init, load value NULL", OvraKbCInit(SYS, 2, NULL_VALUE, 1), OVRA_KB_C_VALUE_CONVERSION_FAILED);

    /* A refused conversion leaves nothing behind: the finalisation right after it succeeds. */
    Check("write with op_type not UTF-8", OvraKbCWrite("kw", "text", NOT_UTF8, 1, 1),
          OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("delete with op_type not UTF-8", OvraKbCDelete("kw", NOT_UTF8, 1, 0), OVRA_KB_C_VALUE_CONVERSION_FAILED);
    Check("finalize", OvraKbCFinalize(), OVRA_KB_C_SUCCESS);
    Check("write after the last finalize", OvraKbCWrite("kw", "text", OP, 1, 1), OVRA_KB_C_PYTHON_UNAVAILABLE);
    printf("%s\n", failures == 0 ? "C interface: all checks passed" : "C interface: checks FAILED");
    return failures == 0 ? 0 : 1;
}
