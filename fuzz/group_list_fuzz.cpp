// The group list and the scope test, plain and with exact keys, beside an independent model of both: the
// input's first 8 bytes are the range, the rest is the file.
#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "log.h"
#include "zent.h"

namespace {

bool is_multicast(uint32_t host)
{
    return host >> 28 == 0xe;
}

struct Model {
    bool accepted;
    std::set<uint32_t> groups; // those before the line that is refused, in network byte order
};

// The file as pieces of at most 62 characters, the way fgets hands them over, up to its first NUL.
Model model_load(const std::string& text)
{
    std::set<uint32_t> groups;
    for (size_t at = 0; at < text.size();) {
        std::string piece = text.substr(at, 62);
        const size_t newline = piece.find('\n');
        if (newline != std::string::npos) {
            piece.resize(newline + 1);
        }
        at += piece.size();
        piece = piece.c_str();
        for (int i = 0; i < 2 && !piece.empty() && (piece.back() == '\n' || piece.back() == '\r'); ++i) {
            piece.pop_back();
        }
        in_addr addr = {};
        if (inet_aton(piece.c_str(), &addr) == 0 || !is_multicast(ntohl(addr.s_addr)) ||
            !groups.insert(addr.s_addr).second) {
            return {false, groups};
        }
    }
    return {true, groups};
}

bool model_in_range(uint32_t host)
{
    if (g_cfg.min_group == 0 && g_cfg.max_group == 0) {
        return false;
    }
    return host >= g_cfg.min_group && (g_cfg.max_group == 0 || host <= g_cfg.max_group);
}

void check(bool condition, const char* what, uint32_t group)
{
    if (!condition) {
        fprintf(stderr, "%s: %s\n", what, group_text(static_cast<int32_t>(group)));
        abort();
    }
}

bool last_octet_is_low(uint32_t group)
{
    return (group & 0x80000000U) == 0;
}

// Where the order of the tables is a total one, the list holds what it says: with the feature exact, or where
// all last octets are below 128, so that both widenings of a key agree.
void check_group(uint32_t group, const std::set<uint32_t>& listed, bool total)
{
    const bool inside = in_scope(static_cast<int32_t>(group));
    const uint32_t host = ntohl(group);
    if (model_in_range(host)) {
        check(inside, "in range, but out of scope", group);
    } else if (total && (g_cfg.features.exact || last_octet_is_low(group))) {
        check(inside == (listed.count(group) != 0), "list and scope differ", group);
    } else if (listed.count(group) == 0) {
        // Not listed, and yet in scope, would need an equal low half in the table.
        check(!inside, "not listed, but in scope", group);
    }
}

// Without a list the range alone counts, and without a range everything is in scope.
void check_range(const std::set<uint32_t>& groups)
{
    const bool any = g_cfg.min_group == 0 && g_cfg.max_group == 0;
    for (const uint32_t group : groups) {
        check(in_scope(static_cast<int32_t>(group)) == (any || model_in_range(ntohl(group))),
              "scope without a list differs", group);
    }
}

int load(const uint8_t* data, size_t size)
{
    const int fd = memfd_create("list", 0);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const int rc = load_group_list(path.c_str());
    close(fd);
    return rc;
}

bool is_total(const std::set<uint32_t>& groups)
{
    return g_cfg.features.exact || std::all_of(groups.begin(), groups.end(), last_octet_is_low);
}

// One load of the list and questions about its groups, with the keys that g_cfg says.
void run(const uint8_t* list, size_t size, const Model& model)
{
    const int rc = load(list, size);
    const bool total = is_total(model.groups);
    // Only where the table's order hides a duplicate may a list be taken that the model refuses.
    check((rc == 0) == model.accepted || (rc == 0 && !total), "load and model differ", 0);
    check((rc == 0) == (g_ctx.scope_ht != 0), "result and table differ", 0);
    if (model.accepted) {
        check(nkht_count(g_ctx.scope_ht) == model.groups.size(), "count differs", 0);
        for (const uint32_t group : model.groups) {
            check_group(group, model.groups, total);
            check_group(group + htonl(1), model.groups, total);
        }
        check_group(htonl(g_cfg.min_group), model.groups, total);
        check_group(htonl(g_cfg.max_group), model.groups, total);
    }
    // Loaded again it takes the place of the list before; one that is refused leaves that alone.
    check((load(list, size) == 0) == (rc == 0) && (g_ctx.scope_ht != 0) == (rc == 0), "second load differs",
          0);
    if (g_ctx.scope_ht != 0) {
        nkht_destroy(g_ctx.scope_ht, nullptr);
        g_ctx.scope_ht = 0;
    }
    check_range(model.groups);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 8) {
        return 0;
    }
    g_mod_ll[MLL_COMMON] = MIN_level;
    g_cfg = {};
    memcpy(&g_cfg.min_group, data, 4);
    memcpy(&g_cfg.max_group, data + 4, 4);
    const Model model = model_load({reinterpret_cast<const char*>(data) + 8, size - 8});
    run(data + 8, size - 8, model);
    g_cfg.features.any = g_cfg.features.exact = true;
    run(data + 8, size - 8, model);
    return 0;
}
