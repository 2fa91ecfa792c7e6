// An application in C++11 that has nothing but what is installed. The server's address is in VORN_HOST_ADDR.
#include <vorn.h>

#include "letter_fields.h"

#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

static void check(bool good, const std::string &step)
{
    if (!good)
        throw std::runtime_error(step + ": " + tpstrerror(gettperrno()) + "; " + fbstrerror(getfberror()));
}

// The reply may come in another buffer than the request went in, so the pointer is handed on.
static std::unique_ptr<char, void (*)(char *)> call(const char *service, char *buffer)
{
    std::string name = service;
    long length = 0;

    check(buffer != nullptr, "a buffer");
    check(tpcall(&name[0], buffer, 0, &buffer, &length, 0) != -1, name);
    return {buffer, tpfree};
}

static void call_with_text()
{
    std::string type = "STRING", text = "a foreign program";
    char *request = tpalloc(&type[0], nullptr, 100);

    check(request != nullptr, "tpalloc");
    std::memcpy(request, text.c_str(), text.size() + 1);
    auto reply = call("TOUPPER", request);
    check(std::string(reply.get()) == "A FOREIGN PROGRAM", "the reply in capitals");
    std::cout << reply.get() << '\n';
}

static void call_with_fields()
{
    FBUF *letter = fballoc(10, 200);
    std::string sender = "Ann Example";
    int pages = 3, answered = 0;

    check(letter != nullptr, "fballoc");
    check(fbput(letter, SENDER, &sender[0], 0) != -1, "fbput");
    check(fbput(letter, PAGES, reinterpret_cast<char *>(&pages), 0) != -1, "fbput");
    auto reply = call("FBECHO", reinterpret_cast<char *>(letter));
    letter = reinterpret_cast<FBUF *>(reply.get());

    char name[20] = "";
    check(fbget_tu(letter, SENDER, 0, name, nullptr) != -1, "fbget_tu");
    check(fbget_tu(letter, PAGES, 0, reinterpret_cast<char *>(&answered), nullptr) != -1, "fbget_tu");
    check(name == sender && answered == pages, "the fields as they were sent");
    std::cout << answered << " pages from " << name << '\n';
}

int main()
{
    try {
        check(tpstart(nullptr) != -1, "tpstart");
        call_with_text();
        call_with_fields();
        check(tpend() != -1, "tpend");
    } catch (const std::exception &error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
