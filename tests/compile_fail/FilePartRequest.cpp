// Only FilePartRequest's factories make a part request. Built twice: with CONTROL the factory
// call must compile, without it the direct construction must not.
#include <pellorin/FilePartRequest.h>

#include <memory>

int main() {
    auto url = *pellorin::Url::parse("http://127.0.0.1/");
#ifdef CONTROL
    auto part = pellorin::FilePartRequest::make("a.bin", 1, 0, 1, url, "PUT");
#else
    pellorin::FilePartRequest direct({}, "a.bin", 1, 0, 1, url, "PUT", std::nullopt);
    auto part = &direct;
#endif
    return part ? 0 : 1;
}
