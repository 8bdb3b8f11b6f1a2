// Base64 of arbitrary text and bytes: the decoder stays within the size its
// length function gives, encoding round-trips through both alphabets, and
// SHA-256 in two pieces equals one call.
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <trel/crypto.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    // Decoding foreign text: exactly the bound, so any overrun is caught.
    std::vector<uint8_t> out((size_t)base64_decode_len(text.c_str()));
    base64_decode(out.data(), text.c_str());

    for (bool url : {false, true}) {
        std::vector<char> enc((size_t)base64_encode_len((int32_t)size));
        if (url)
            base64url_encode(enc.data(), data, (int32_t)size);
        else
            base64rfc_encode(enc.data(), data, (int32_t)size);
        if (strlen(enc.data()) + 1 > enc.size()) abort();
        std::vector<uint8_t> dec((size_t)base64_decode_len(enc.data()));
        base64_decode(dec.data(), enc.data());
        if (dec.size() < size + 1 || memcmp(dec.data(), data, size) != 0 || dec[size] != 0) abort();
    }

    uint8_t one[32], two[32];
    sha256(data, (uint32_t)size, one);
    sha256_context ctx;
    sha256_init(&ctx);
    size_t split = size > 0 ? data[0] % (size + 1) : 0;
    sha256_update(&ctx, data, (uint32_t)split);
    sha256_update(&ctx, data + split, (uint32_t)(size - split));
    sha256_final(&ctx, two);
    if (memcmp(one, two, 32) != 0) abort();
    return 0;
}
