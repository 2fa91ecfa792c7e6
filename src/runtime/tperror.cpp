// Error cells and their texts.
//
// Two numberings stand side by side, the native one and that of the compatibility interface. Their texts
// differ in places, spellings included; programs compare them, so each table is kept as it stands.
#include "runtime/tperror.h"

#include "runtime/common.h"
#include "runtime/mthr.h"

#include <atomic>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

const char *const _tperr_strtab[TPERR_ROWS] = {
    "",
    "",
    "bad call descriptor(TPEBADDESC)",
    "blocking condition found(TPEBLOCK)",
    "invalid arguments(TPEINVAL)",
    "system defined limit reached(TPELIMIT)",
    "no entry found(TPENOENT)",
    "operating system error(TPEOS)",
    "",
    "protocol error(TPEPROTO)",
    "service request processing error(TPESVCERR)",
    "service failure(TPESVCFAIL)",
    "system internal error(TPESYSTEM)",
    "timeout(TPETIME)",
    "transaction error(TPETRAN)",
    "signal received(TPGOTSIG)",
    "",
    "input data type error(TPEITYPE)",
    "output data type error(TPEOTYPE)",
    "",
    "",
    "",
    "event occurred(TPEEVENT)",
    "no matching entry found(TPEMATCH)",
    "no service or server ready(TPENOREADY)",
    "security check error(TPESECURITY)",
    "queue limit reached(TPEQFULL)",
    "service request queue purged(TPEQPURGE)",
    "communication channel closed(TPECLOSE)",
    "server down error(TPESVRDOWN)",
    "pre-service processing error(TPEPRESVC)",
    "server rolling down error(TPERDOWN)",
    "communication channel closed in rolling down(TPERDCLOSE)",
    "",
};

const char *const _tuxerr_strtab[TUXERR_ROWS] = {
    "TPMINVAL",
    "transaction commit fail(TPEABORT)",
    "bad call descriptor(TPEBADDESC)",
    "blocking condition found(TPEBLOCK)",
    "invalid arguments(TPEINVAL)",
    "system defined limit reached(TPELIMIT)",
    "no entry found(TPENOENT)",
    "operating system error(TPEOS)",
    "permission not allowed(TPEPERM)",
    "protocall error(TPEPROTO)",
    "service request processing error(TPESVCERR)",
    "service failure(TPESVCFAIL)",
    "system internal error(TPESYSTEM)",
    "timeout(TPETIME)",
    "transaction error(TPETRAN)",
    "signal received(TPGOTSIG)",
    "resource manager error(TPERMERR)",
    "input data type error(TPEITYPE)",
    "output data type error(TPEOTYPE)",
    "version mismatch(TPERELEASE)",
    "transaction may have been heuristically completed(TPEHAZARD)",
    "transaction has been heuristically commited(TPEHEURISTIC)",
    "event occurred(TPEEVENT)",
    "no matching entry found(TPEMATCH)",
    "check diagnostic value(TPEDIAGNOSTIC)",
    "MIB error(TPEMIB)",
    "TPMAXVAL",
};

const char *const _fberr_strtab[FBERR_ROWS] = {
    "FBEMINNO (bottom of error message codes)",
    "EBEALIGN (alignment error)",
    "FBEFTSYNTAX (bad field table)",
    "FBEBADFB (bad field key buffer)",
    "FBEINVAL (invalid argument)",
    "FBELIMIT (limit over)",
    "FBENOENT (not found)",
    "FBEOS (OS error)",
    "FBEBADFLD (bad field)",
    "FBEPROTO (prototype error)",
    "FBENOSPACE (no space)",
    "FBEMALLOC (malloc error)",
    "FBESYSTEM (system error)",
    "FBETYPE (type error)",
    "FBEMATCH (no match)",
    "FBEBADSTRUCT (bad struct)",
    "FBEVTSYNTAX (bad viewfile)",
    "FBEVFOPEN (file open error)",
    "FBEBADACM",
    "FBENOCNAME (cname not founc)",
    "FBEBADTBL (bad table)",
    "FBEMAXNO (top of error message codes)",
    "",
};

const char *const _Ferr_strtab[FERR_ROWS] = {
    "",
    "FALIGN (fielded buffer not aligned)",
    "FNOTFLD (buffer not fielded)",
    "FNOSPACE (no space in fielded buffer)",
    "FNOTPRES (field not present)",
    "FBADFLD (unknown field number or type)",
    "FTYPERR (illegal field type)",
    "FEUNIX (UNIX system call error)",
    "FBADNAME (unknown field name)",
    "FMALLOC (malloc failed)",
    "FSYNTAX (bad syntax in boolean expression)",
    "FFTOPEN (cannot find or open field table)",
    "FFTSYNTAX (syntax error in field table)",
    "FEINVAL (invalid argument to function)",
    "FBADTBL (destructive concurrent access to field table)",
    "FBADVIEW (cannot find or get view)",
    "FVFSYNTAX (syntax error in viewfile)",
    "FVFOPEN (cannot find or open viewfile)",
    "FBADACM (ACM contains negative value)",
    "FNOCNAME (cname not found)",
    "FEBADOP (invalid field type)",
    "",
};

const char *const Uunixmsg[UUNIX_ROWS] = {
    "UUNIXMIN", "UCLOSE",  "UCREAT", "UEXEC",   "UFCTNL", "UFORK",   "ULSEEK",   "UMSGCTL", "UMSGGET",
    "UMSGSND",  "UMSGRCV", "UOPEN",  "UPLOCK",  "UREAD",  "USEMCTL", "USEMGET",  "USEMOP",  "USHMCTL",
    "USHMGET",  "USHMAT",  "USHMDT", "USTAT",   "UWRITE", "USBRK",   "USYSMUL",  "UWAIT",   "UKILL",
    "UTIME",    "UMKDIR",  "ULINK",  "UUNLINK", "UUNAME", "UNLIST",  "UUNIXMAX",
};

// Native tperrno of 24 to 30; the others below keep their number.
static constexpr int FIRST_MAPPED_TPERRNO = TPENOREADY, LAST_TPERRNO = TPERDCLOSE;
static const int8_t tperrno_map[] = {
    TPESVCERR,   // TPENOREADY
    TPEPERM,     // TPESECURITY
    TPESVCERR,   // TPEQFULL
    TPESVCERR,   // TPEQPURGE
    TPESYSTEM,   // TPECLOSE
    TPESVCERR,   // TPESVRDOWN
    TPESVCFAIL,  // TPEPRESVC
};

// Native fberror to the compatibility numbering; 0 stays 0.
static constexpr int FERROR_ABOVE_TABLE = 21;
static const int8_t Ferror_map[] = {
    0,
    FALIGN,     // EBEALIGN
    FFTSYNTAX,  // FBEFTSYNTAX
    FNOTFLD,    // FBEBADFB
    FEINVAL,    // FBEINVAL
    FBADFLD,    // FBELIMIT: has no counterpart and keeps its number
    FNOTPRES,   // FBENOENT
    FEUNIX,     // FBEOS
    FBADFLD,    // FBEBADFLD
    FSYNTAX,    // FBEPROTO
    FNOSPACE,   // FBENOSPACE
    FMALLOC,    // FBEMALLOC
    FFTOPEN,    // FBESYSTEM
    FTYPERR,    // FBETYPE
    FBADNAME,   // FBEMATCH
    FBADVIEW,   // FBEBADSTRUCT
    FVFSYNTAX,  // FBEVTSYNTAX
    FVFOPEN,    // FBEVFOPEN
    FBADACM,    // FBEBADACM
    FNOCNAME,   // FBENOCNAME
    FBADTBL,    // FBEBADTBL
};
static_assert(sizeof Ferror_map == FBEBADTBL + 1);

// errno values by class of system call; what isn't listed is UNLIST.
static const struct {
    int8_t error, unix_number;
} unix_map[] = {
    {EPERM, UOPEN},        {ENOENT, UOPEN},     {ESRCH, UOPEN},     {ENOTBLK, UOPEN},
    {EXDEV, UOPEN},        {ENODEV, UOPEN},     {ENOTDIR, UOPEN},   {EISDIR, UOPEN},
    {EINVAL, UOPEN},       {ENFILE, UOPEN},     {EMFILE, UOPEN},    {EMLINK, UOPEN},
    {ENAMETOOLONG, UOPEN}, {EADDRINUSE, UOPEN}, {EINTR, UTIME},     {ETIME, UTIME},
    {ETIMEDOUT, UTIME},    {EIO, UWRITE},       {ENXIO, UWRITE},    {ETXTBSY, UWRITE},
    {ENOSPC, UWRITE},      {EROFS, UWRITE},     {EPIPE, UWRITE},    {ECOMM, UWRITE},
    {EDQUOT, UWRITE},      {E2BIG, UREAD},      {EBADF, UREAD},     {EAGAIN, UREAD},
    {EBUSY, UREAD},        {EFBIG, UREAD},      {EBADMSG, UREAD},   {EBADFD, UREAD},
    {ENOTSOCK, UREAD},     {ENETDOWN, UREAD},   {ENETRESET, UREAD}, {ECONNABORTED, UREAD},
    {ECONNRESET, UREAD},   {ENOTCONN, UREAD},   {ENOEXEC, UEXEC},   {ECHILD, UWAIT},
    {ENOMEM, USBRK},       {EFAULT, USBRK},     {EEXIST, UCREAT},   {ESPIPE, ULSEEK},
    {EDEADLK, UPLOCK},     {ENOLCK, UPLOCK},    {ENOSTR, UFCTNL},   {ENODATA, UFCTNL},
    {ENOSR, UFCTNL},
};

int compat_tperrno(int native)
{
    if (native <= 0)
        return TPMINVAL;
    if (native > LAST_TPERRNO)
        return TPMAXVAL;
    unsigned row = (unsigned)(native - FIRST_MAPPED_TPERRNO);
    return row < sizeof tperrno_map ? tperrno_map[row] : native;
}

int compat_Ferror_number(int native)
{
    if (native <= 0)
        return 0;
    return native > FBEBADTBL ? FERROR_ABOVE_TABLE : Ferror_map[native];
}

int compat_unix_number(int error)
{
    for (const auto &row : unix_map)
        if (row.error == error)
            return row.unix_number;
    return UNLIST;
}

// Cells. An exported function that only reads them neither traces nor clears anything.

static int32_t load_cell(int32_t *cell)
{
    return std::atomic_ref<int32_t>(*cell).load(std::memory_order_relaxed);
}

int *_tmget_tperrno_addr(void)
{
    wthr_elem *row = current_row();
    return row == nullptr ? nullptr : &row->tperrno;
}

long *_tmget_tpurcode_addr(void)
{
    wthr_elem *row = current_row();
    return row == nullptr ? nullptr : &row->tpurcode;
}

int *_tmget_fberror_addr(void)
{
    wthr_elem *row = current_row();
    return row == nullptr ? nullptr : &row->fberror;
}

int gettperrno(void)
{
    return get_tperrno();
}

long gettpurcode(void)
{
    wthr_elem *row = current_row();
    return row == nullptr ? 0 : std::atomic_ref<int64_t>(row->tpurcode).load(std::memory_order_relaxed);
}

int getfberror(void)
{
    wthr_elem *row = current_row();
    return row == nullptr ? 0 : load_cell(&row->fberror);
}

int getfberrno(void)
{
    return getfberror();
}

int getFerror(void)
{
    return getfberror();
}

// Threads that share a context overwrite one another's mapped cell; its user reads it at once.
static int *fill_cell(int32_t *cell, int value)
{
    std::atomic_ref<int32_t>(*cell).store(value, std::memory_order_relaxed);
    return cell;
}

int *_tmget_compat_errno_addr(void)
{
    wthr_elem *row = current_row();
    if (row == nullptr)
        return nullptr;
    return fill_cell(&current_block()->compat_errno, compat_tperrno(load_cell(&row->tperrno)));
}

int *_tmget_compat_unixerrno_addr(void)
{
    int error = errno;  // before the lookup can change it
    wthr_var *block = current_block();
    errno = error;
    return block == nullptr ? nullptr : fill_cell(&block->compat_unixerrno, compat_unix_number(error));
}

int *_tmget_compat_Ferror_addr(void)
{
    wthr_elem *row = current_row();
    if (row == nullptr)
        return nullptr;
    return fill_cell(&current_block()->compat_Ferror, compat_Ferror_number(load_cell(&row->fberror)));
}

int getFerror2(void)
{
    int *cell = _tmget_compat_Ferror_addr();
    return cell == nullptr ? 0 : load_cell(cell);
}

int tperrordetail(long flags)
{
    (void)flags;
    switch (gettperrno()) {
    case TPETIME:
        return 1;
    case TPECLOSE:
        return 2;
    default:
        return -1;
    }
}

// Texts. Unsigned, so that a negative number takes the last row too.
static const char *text_of(const char *const *table, int last, int number)
{
    return table[(unsigned)number > (unsigned)last ? last : number];
}

const char *tpstrerror(int number)
{
    return text_of(_tperr_strtab, TPERR_ROWS - 1, number);
}

const char *_tmget_compat_strerror(int number)
{
    return text_of(_tuxerr_strtab, TUXERR_ROWS - 1, number);
}

const char *fbstrerror(int number)
{
    return text_of(_fberr_strtab, FBEMAXNO, number);
}

const char *_tmget_compat_strFerror(int number)
{
    return text_of(_Ferr_strtab, FERR_ROWS - 1, number);
}

const char *Ustrerror(int number)
{
    return text_of(Uunixmsg, UUNIX_ROWS - 1, number);
}

void Uunix_err(const char *msg)
{
    int *cell = _tmget_compat_unixerrno_addr();
    if (cell == nullptr)
        return;
    const char *text = Ustrerror(load_cell(cell));
    if (msg == nullptr)
        fprintf(stderr, "%s\n", text);
    else
        fprintf(stderr, "%s: %s\n", msg, text);
}

// `msg` has always been a format of its own, so "%%" in it is one percent sign. A conversion in it would take
// an argument that isn't there; such text comes out as it stands.
static void print_field_error(const char *msg, const char *text)
{
    char *copy = strdup(msg == nullptr ? "" : msg);
    if (copy != nullptr) {
        print_percents(copy);
        fputs(copy, stderr);
        free(copy);
    }
    fputs(": ", stderr);
    fputs(text, stderr);
}

void print_fberror(const char *msg)
{
    wthr_elem *row = current_row();
    if (row == nullptr)
        return;
    unsigned number = (unsigned)load_cell(&row->fberror);
    print_field_error(msg, number <= FBEBADTBL ? _fberr_strtab[number] : "");
}

void print_Ferror(const char *msg)
{
    wthr_elem *row = current_row();
    if (row == nullptr)
        return;
    unsigned number = (unsigned)load_cell(&row->fberror);
    print_field_error(msg, number <= FBEBADTBL ? _Ferr_strtab[compat_Ferror_number((int)number)] : "");
}
}
