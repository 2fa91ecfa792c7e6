// The compatible names: each does what the call behind it does, with the same arguments.
#include "fields/values.h"

#include "runtime/capture.h"
#include "support/fdlfile.h"
#include "support/sdlfile.h"
#include "vorn/ffields.h"

#include <stddef.h>

using namespace fv;

namespace {

struct shape {
    int32_t number[2];
    char name[8];
};

// What a call can look at and change. The same memory serves both calls of a pair, so that addresses can be
// compared too.
struct Scene {
    FBUF *fbuf, *other;  // the first may be null for a round
    int key = 0, nth = 0, type = 0, len = 0, number = 0, keys[4] = {};
    char value[64], out[300];
    shape one;
    std::string images[2];
    FBUF *own[2];

    Scene()
    {
        own[0] = fballoc(10, 0), own[1] = fballoc(10, 0);
        fill(own[0], {stored(1, i(12)), stored(1, t("12 apples")), stored(2, a("abcd")), stored(1, i(-5)),
                      stored(1, d(2.5)), stored(1, t("second")), stored(1, l(-1)), stored(1, s(-1)),
                      stored(2, c('x'))});
        fill(own[1], {stored(1, i(99)), stored(3, i(7)), stored(1, t("other"))});
        for (int n = 0; n < 2; n++)
            images[n] = whole(own[n]);
    }
    ~Scene()
    {
        fbfree(own[0]);
        fbfree(own[1]);
    }
    static void fill(FBUF *to, const fields &list)
    {
        for (field each : list) {
            each.value.resize(each.value.size() + (each.key >> 26 == FB_LONG ? 4 : 0));
            ASSERT_EQ(fbput(to, each.key, &each.value[0], (int)each.value.size()), 1);
        }
    }
    // As before the first call, with nothing remembered of either buffer.
    void prepare(int key_wanted, int nth_wanted, int type_wanted, int len_wanted, bool null)
    {
        for (int n = 0; n < 2; n++) {
            fbinit(own[n], head(own[n])->bufsize);
            memcpy(own[n], images[n].data(), images[n].size());
        }
        fbuf = null ? nullptr : own[0], other = own[1];
        key = key_wanted, nth = nth_wanted, type = type_wanted, len = len_wanted, number = nth_wanted;
        keys[0] = key_wanted, keys[1] = key_of(FB_STRING, 1), keys[2] = 0;
        memset(value, 0, sizeof value);
        memcpy(value, "12 apples", 9);
        memset(out, '\xA5', sizeof out);
        one = {{3, 0}, "name"};
    }
    std::string state() const
    {
        std::string all = whole(own[0]) + whole(own[1]);
        for (int each : {key, nth, type, len, number, keys[0], keys[1], getfberror()})
            all += bytes_of(each);
        return all + std::string(out, sizeof out) + std::string(value, sizeof value) + bytes_of(one);
    }

    static long tell(long result) { return result; }
    static long tell(const void *result) { return (long)(intptr_t)result; }
};

struct pair {
    const char *name;
    std::function<long(Scene &)> calls[2];
};

// The arguments are written once; they name members of the scene.
#define SAME(NAME, TARGET, ...) \
    { \
#NAME, \
        { \
            [](Scene &on) { return Scene::tell(NAME(__VA_ARGS__)); }, \
                [](Scene &on) { return Scene::tell(TARGET(__VA_ARGS__)); } \
        } \
    }
// For names with fewer arguments than their targets.
#define SAME_AS(NAME, CALL, TARGET) \
    { \
#NAME, \
        { \
            [](Scene &on) { return Scene::tell(CALL); }, [](Scene &on) { return Scene::tell(TARGET); } \
        } \
    }

// A block that the caller owns: its first byte is kept in the scene, its size stands there already.
long keep_block(Scene &on, char *block)
{
    if (block == nullptr)
        return 0;
    if (on.number > 0)
        on.out[0] = block[0];
    free(block);
    return 1;
}

std::vector<pair> thin_names(void)
{
    return {
        SAME(Fldno, fbget_fldno, on.key),
        SAME(Fldtype, fbget_fldtype, on.key),
        SAME(Ftype, fbget_strfldtype, on.key),
        SAME(Fmkfldid, fbmake_fldkey, on.type, on.nth),
        SAME(Fielded, fbisfbuf, on.fbuf),
        SAME(Fneeded, fbcalcsize, on.key, on.len),
        SAME(Finit, fbinit, on.fbuf, on.len * 300),
        SAME(Fsizeof, fbget_fbsize, on.fbuf),
        SAME(Funused, fbget_unused, on.fbuf),
        SAME(Fused, fbget_used, on.fbuf),
        SAME(Fadd, fbput, on.fbuf, on.key, on.value, on.len),
        SAME(Fappend, fbput, on.fbuf, on.key, on.value, on.len),
        SAME(Fchg, fbchg_tu, on.fbuf, on.key, on.nth, on.value, on.len),
        SAME(Fchg, fbchg_tu, on.fbuf, on.key, on.nth + (on.nth < 0), nullptr, on.len),
        SAME(Fdel, fbdelete, on.fbuf, on.key, on.nth),
        SAME(Fdelall, fbdelall, on.fbuf, on.key),
        SAME(Fdelete, fbdelall_tu, on.fbuf, on.keys),
        SAME(Fget, fbget_tu, on.fbuf, on.key, on.nth, on.out, &on.len),
        SAME(Fgetlast, fbgetlast_tu, on.fbuf, on.key, &on.number, on.out, &on.len),
        SAME(Fnext, fbnext_tu, on.fbuf, &on.key, &on.number, on.out, &on.len),
        SAME(Ffind, fbgetval, on.fbuf, on.key, on.nth, &on.len),
        SAME(Ffindlast, fbgetval_last_tu, on.fbuf, on.key, &on.number, &on.len),
        SAME(Ffindocc, fbgetnth, on.fbuf, on.key, on.value, on.len),
        SAME(Fvals, fbgetvals_tu, on.fbuf, on.key, on.nth),
        SAME(Fvall, fbgetvall_tu, on.fbuf, on.key, on.nth),
        SAME(Fnum, fbfldcount, on.fbuf),
        SAME(Foccur, fbkeyoccur, on.fbuf, on.key),
        SAME(Fpres, fbispres, on.fbuf, on.key, on.nth),
        SAME(CFadd, fbputt, on.fbuf, on.key, on.value, on.len, on.type),
        SAME(CFchg, fbchg_tut, on.fbuf, on.key, on.nth, on.value, on.len, on.type),
        SAME(CFget, fbget_tut, on.fbuf, on.key, on.nth, on.out, &on.len, on.type),
        SAME(CFfind, fbgetvalt, on.fbuf, on.key, on.nth, &on.len, on.type),
        SAME(CFfindocc, fbgetntht, on.fbuf, on.key, on.value, on.len, on.type),
        SAME(Ftypcvt, fbtypecvt, &on.number, on.key >> 26, on.value, on.type, on.len),
        SAME(Fprojcpy, fbbufop_proj, on.fbuf, on.other, on.keys),
        SAME_AS(Fgetalloc, keep_block(on, Fgetalloc(on.fbuf, on.key, on.nth, &on.number)),
                keep_block(on, fbgetalloc_tu(on.fbuf, on.key, on.nth, &on.number))),
        SAME_AS(CFgetalloc, keep_block(on, CFgetalloc(on.fbuf, on.key, on.nth, on.type, &on.number)),
                keep_block(on, fbgetalloc_tut(on.fbuf, on.key, on.nth, on.type, &on.number))),
        SAME_AS(Fmove, Fmove(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 1)),
        SAME_AS(Fcpy, Fcpy(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 2)),
        SAME_AS(Fcmp, Fcmp(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 3)),
        SAME_AS(Fcmp, Fcmp(on.other, on.fbuf), fbbufop(on.other, on.fbuf, 3)),
        SAME_AS(Fconcat, Fconcat(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 4)),
        SAME_AS(Fjoin, Fjoin(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 5)),
        SAME_AS(Fojoin, Fojoin(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 6)),
        SAME_AS(Fupdate, Fupdate(on.fbuf, on.other), fbbufop(on.fbuf, on.other, 7)),
        SAME_AS(Fproj, Fproj(on.fbuf, on.keys), fbbufop_proj(on.fbuf, nullptr, on.keys)),
        SAME(Fstrerror, fbstrerror, on.nth * 10),
    };
}

std::vector<pair> record_names(void)
{
    return {
        SAME(Fvftos, fbftos, on.fbuf, (char *)&on.one, on.value),
        SAME(Fvstof, fbstof, on.fbuf, (char *)&on.one, on.type, on.value),
        SAME(Fvnull, fbsnull, (char *)&on.one, on.out, on.nth, on.value),
        SAME(Fvsinit, fbstinit, (char *)&on.one, on.value),
        SAME(Fvselinit, fbstelinit, (char *)&on.one, on.out, on.value),
    };
}

// Both calls of a pair on the same scene leave the same behind them.
void expect_same(Scene &scene, const pair &each, const std::function<void()> &prepare)
{
    prepare();
    long result = each.calls[0](scene);
    std::string state = scene.state();
    prepare();
    EXPECT_EQ(result, each.calls[1](scene)) << each.name;
    EXPECT_TRUE(state == scene.state()) << each.name;
}

void expect_same_on_all(const pair &each)
{
    Scene scene;
    const int keys[] = {0,
                        key_of(FB_INT, 1),
                        key_of(FB_STRING, 1),
                        key_of(FB_CARRAY, 2),
                        key_of(FB_LONG, 1),
                        key_of(FB_DOUBLE, 1),
                        key_of(FB_SHORT, 1),
                        key_of(FB_CHAR, 2),
                        key_of(FB_INT, 55)};
    for (int key : keys)
        for (int nth : {-1, 0, 1, 3})
            for (int type : {0, FB_CHAR, FB_INT, FB_STRING, FB_CARRAY, 9})
                for (int len : {0, 4, 20})
                    for (bool null : {false, true}) {
                        SCOPED_TRACE(testing::Message() << "key " << (key >> 26) << '/' << (key & 0xffffff)
                                                        << " nth " << nth << " type " << type << " len "
                                                        << len << (null ? " without a buffer" : ""));
                        expect_same(scene, each, [&] { scene.prepare(key, nth, type, len, null); });
                        if (testing::Test::HasFailure())
                            return;
                    }
}

void define_shape(void)
{
    sdl::member number, name;
    number.name = "number", number.key = key_of(FB_INT, 1), number.type = sdl::INT, number.count = 2;
    name.name = "name", name.key = key_of(FB_STRING, 1), name.type = sdl::STRING, name.count = 8;
    name.element = 8, name.host_offset = name.wire_offset = offsetof(shape, name), name.null = "";
    std::string path =
        write_definition(sdl::file_bytes({{"shape", {number, name}, sizeof(shape), sizeof(shape), 0}}));
    setenv("SDLFILE64", path.c_str(), 1);
}

}  // namespace

TEST(CompatibleNames, DoWhatTheirTargetsDo)
{
    for (const pair &each : thin_names())
        expect_same_on_all(each);
}

TEST(CompatibleNames, OfRecordsDoWhatTheirTargetsDo)
{
    define_shape();
    Scene scene;
    for (const pair &each : record_names())
        for (const char *structure : {"shape", "nothing"})
            for (const char *which : {"number", "name", "nothing"})
                for (int nth : {0, 1, 3})
                    for (int mode : {0, 3, 4, 5, 6, 7, 8})
                        for (bool null : {false, true}) {
                            SCOPED_TRACE(testing::Message() << structure << ' ' << which << ' ' << nth << ' '
                                                            << mode << ' ' << null);
                            expect_same(scene, each, [&] {
                                scene.prepare(0, nth, mode, 0, null);
                                memcpy(scene.value, structure, strlen(structure) + 1);
                                memcpy(scene.out, which, strlen(which) + 1);
                            });
                        }
    scene.prepare(0, 0, 0, 0, false);
    EXPECT_EQ(Fvftos(scene.fbuf, (char *)&scene.one, (char *)"shape"), 1);
    EXPECT_EQ(scene.one.number[0], 12);
    EXPECT_EQ(scene.one.number[1], -5);
    EXPECT_EQ(std::string(scene.one.name, 8), "12 apple");
}

TEST(CompatibleNames, OfTheFieldTable)
{
    std::string path = write_definition(fdl::file_bytes({{"AGE", key_of(FB_INT, 7)}}));
    setenv("FDLFILE", path.c_str(), 1);
    EXPECT_EQ(Fldid((char *)"AGE"), key_of(FB_INT, 7));
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(Fldid((char *)"OTHER"), 0);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_STREQ(Fname(key_of(FB_INT, 7)), "AGE");
    EXPECT_EQ(Fname(key_of(FB_INT, 7)), fbget_fldname(key_of(FB_INT, 7)));
    EXPECT_EQ(Fname(key_of(FB_INT, 8)), nullptr);
    EXPECT_EQ(getfberror(), FBENOENT);
}

TEST(CompatibleNames, OfBuffersMakeAndEndThem)
{
    FBUF *fbuf = Falloc(10, 100);
    ASSERT_NE(fbuf, nullptr);
    EXPECT_EQ(Fielded(fbuf), 1);
    EXPECT_EQ(Fsizeof(fbuf), 1032);
    EXPECT_EQ(Fused(fbuf), 8);
    EXPECT_EQ(Funused(fbuf), 1024);
    EXPECT_EQ(Fneeded(10, 100), 188);
    int value = 5;
    EXPECT_EQ(Fadd(fbuf, key_of(FB_INT, 1), (char *)&value, 0), 1);
    fbuf = Frealloc(fbuf, 1000, 1000);
    ASSERT_NE(fbuf, nullptr);
    EXPECT_GE(Fsizeof(fbuf), 9008);
    EXPECT_EQ(content(fbuf), fields{stored(1, i(5))});
    EXPECT_EQ(Finit(fbuf, 100), 1);
    EXPECT_EQ(Fused(fbuf), 8);
    EXPECT_EQ(Ffree(fbuf), 1);
    EXPECT_EQ(Ffree(nullptr), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(Frealloc(nullptr, 1, 1), nullptr);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST(CompatibleNames, OfStreams)
{
    unsetenv("FDLFILE");
    Buffer from({stored(1, i(5)), stored(2, t("text"))}), to;
    FILE *stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(Fwrite(from, stream), 1);
    rewind(stream);
    EXPECT_EQ(Fread(to, stream), 1);
    EXPECT_EQ(whole(to), whole(from));
    EXPECT_EQ(Fread(to, stream), -1);
    EXPECT_EQ(getfberror(), FBEOS);
    fclose(stream);

    std::string lines[2];
    for (int native = 0; native < 2; native++) {
        char *data = nullptr;
        size_t size = 0;
        stream = open_memstream(&data, &size);
        EXPECT_EQ(native != 0 ? fbfprint(from, stream) : Ffprint(from, stream), 1);
        fclose(stream);
        lines[native].assign(data, size);
        free(data);
    }
    EXPECT_EQ(lines[0], lines[1]);
    EXPECT_NE(lines[0], "");
    EXPECT_EQ(output_of([&] { EXPECT_EQ(Fprint(from), 1); }).out, lines[0]);

    std::string text = std::to_string(key_of(FB_STRING, 2)) + "\tabc\n";
    stream = fmemopen(&text[0], text.size(), "r");
    EXPECT_EQ(Fextread(to, stream), 1);
    fclose(stream);
    EXPECT_EQ(content(to).back(), stored(2, t("abc")));
    EXPECT_EQ(Fwrite(nullptr, stdout), -1);
    EXPECT_EQ(Fread(nullptr, stdin), -1);
    EXPECT_EQ(Fprint(nullptr), -1);
    EXPECT_EQ(Ffprint(nullptr, stdout), -1);
    EXPECT_EQ(Fextread(nullptr, stdin), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST(CompatibleNames, OfTheErrorWritesIt)
{
    Buffer buffer;
    for (const char *message : {"prefix", "", (const char *)nullptr}) {
        EXPECT_EQ(Fdel(buffer, key_of(FB_INT, 1), 0), -1);
        int result = -1;
        Output seen = output_of([&] { result = F_error(message); });
        EXPECT_EQ(result, 0);
        EXPECT_EQ(getfberror(), FBENOENT);
        EXPECT_EQ(seen.err, output_of([&] { print_fberror(message); }).err);
        EXPECT_NE(seen.err.find("FBENOENT (not found)"), std::string::npos) << seen.err;
        EXPECT_EQ(seen.out, "");
    }
    EXPECT_STREQ(Fstrerror(FBENOSPACE), "FBENOSPACE (no space)");
}

TEST(CompatibleNames, WithoutAnIndexAreConstants)
{
    Buffer buffer({stored(1, i(5))});
    std::string before = whole(buffer);
    for (FBUF *fbuf : {buffer.fbuf, (FBUF *)nullptr}) {
        EXPECT_EQ(Fidxused(fbuf), 0);
        EXPECT_EQ(Findex(fbuf, 10), 1);
        EXPECT_EQ(Frstrindex(fbuf, 10), 1);
        EXPECT_EQ(Funindex(fbuf), 0);
        EXPECT_EQ(Fchksum(fbuf), -1L);
    }
    EXPECT_EQ(whole(buffer), before);
}
