// Which groups are reported: a range from the command line, and a list from a file.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>

#include "log.h"
#include "strops.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr const char* kLoad = "load_group_list"; // its stages speak for it
constexpr uintptr_t kListedMark = 0xbbbb;        // stored with each address of the list
constexpr size_t kLineMax = 64;

// Closed on every way out, of which a bad line is one.
class ListFile {
  public:
    explicit ListFile(const char* path) : fp_(fopen(path, "r")) {}

    ListFile(const ListFile&) = delete;
    ListFile& operator=(const ListFile&) = delete;

    ~ListFile()
    {
        if (fp_ != nullptr) {
            fclose(fp_);
        }
    }

    FILE* get() const { return fp_; }

  private:
    FILE* fp_;
};

// The table while it is filled: one that is not complete goes with its scope, and the one in use stays.
class NewTable {
  public:
    NewTable() = default;
    NewTable(const NewTable&) = delete;
    NewTable& operator=(const NewTable&) = delete;

    ~NewTable()
    {
        if (handle != 0) {
            nkht_destroy(handle, nullptr);
        }
    }

    nkht_t release()
    {
        const nkht_t result = handle;
        handle = 0;
        return result;
    }

    nkht_t handle = 0;
};

// Kept: with one bound set the other side is open, beyond the multicast addresses.
bool in_range(uint32_t host)
{
    if (g_cfg.min_group != 0 && g_cfg.max_group != 0) {
        return g_cfg.min_group <= host && host <= g_cfg.max_group;
    }
    if (g_cfg.min_group != 0) {
        return g_cfg.min_group <= host;
    }
    return g_cfg.max_group != 0 && g_cfg.max_group >= host;
}

// An address as lines print it.
long shown_key(struct in_addr addr)
{
    return static_cast<long>(static_cast<unsigned long>(addr.s_addr));
}

// Kept: the list is filled with zero-extended keys and asked with sign-extended ones (in_scope), so that an
// entry whose last octet is 128 or more is not found, unless both hashes meet in one slot.
long list_key(struct in_addr addr)
{
    return g_cfg.features.exact ? group_key(static_cast<int32_t>(addr.s_addr)) : shown_key(addr);
}

// Room for the list's table. A list that can be read once only (a pipe) is not counted.
size_t room_for(FILE* fp)
{
    if (!g_cfg.features.exact || fseek(fp, 0, SEEK_SET) != 0) {
        return MAX_ZENT_CHANNELS;
    }
    char line[kLineMax] = "";
    size_t lines = 0;
    while (fgets(line, kLineMax - 1, fp) != nullptr) {
        ++lines;
    }
    rewind(fp);
    return std::clamp<size_t>(lines, MAX_ZENT_CHANNELS, HT_MAX_CAP);
}

int add_entry(nkht_t table, const char* path, int number, const char* line)
{
    struct in_addr addr = {};
    if (inet_aton(line, &addr) == 0) {
        log_err("%s: [%s] error parsing entry at line %d: %s\n", kLoad, path, number, line);
        return -1;
    }
    if (!is_multicast_addr(addr.s_addr)) {
        log_err("%s: [%s]:%d non-multicast address: (0x%04x) %s\n", kLoad, path, number, addr.s_addr, line);
        return -1;
    }
    void* value = reinterpret_cast<void*>(kListedMark);
    const int rc = nkht_add(table, list_key(addr), &value);
    if (rc != 0) {
        log_err("%s: [%s] %s at line %d: (%ld) %s\n", kLoad, path, rc == EBUSY ? "duplicate" : "error",
                number, shown_key(addr), line);
        return -1;
    }
    log_dbg("%s: [%s]:%d added (0x%04x) %s\n", kLoad, path, number, addr.s_addr, line);
    return 0;
}

} // namespace

bool in_scope(int32_t ipv4_addr)
{
    // Range and list add up: with neither everything is in scope, with both either will do.
    if (g_ctx.scope_ht == 0 && g_cfg.min_group == 0 && g_cfg.max_group == 0) {
        return true;
    }
    if (in_range(ntohl(static_cast<uint32_t>(ipv4_addr)))) {
        return true;
    }
    if (g_ctx.scope_ht == 0) {
        return false;
    }
    const long key = static_cast<long>(ipv4_addr); // as lines print it
    void* value = nullptr;
    const int rc = nkht_get(g_ctx.scope_ht, group_key(ipv4_addr), &value);
    if (rc == ESRCH) {
        return false;
    }
    if (rc != 0) {
        log_panic("%s: error(%d) getting key=%ld from scope HT\n", __func__, rc, key);
    }
    if (reinterpret_cast<uintptr_t>(value) != kListedMark) {
        log_panic("%s: corrupt scope HT, got %p for key=%ld\n", __func__, value, key);
    }
    return true;
}

int load_group_list(const char* path)
{
    const ListFile file(path);
    if (file.get() == nullptr) {
        log_err("%s: failed to open [%s]\n", __func__, path);
        return -1;
    }
    NewTable table;
    const int rc = nkht_create(&table.handle, room_for(file.get()), tw_shift);
    if (rc != 0) {
        log_err("%s: failed to create group-scope hastable\n", __func__);
        return rc;
    }
    char line[kLineMax] = "";
    for (int number = 1; fgets(line, kLineMax - 1, file.get()) != nullptr; ++number) {
        chomp(line);
        if (add_entry(table.handle, path, number, line) != 0) {
            return -1;
        }
    }
    // Only now, when the new list is whole, the old one goes.
    if (g_ctx.scope_ht != 0) {
        nkht_destroy(g_ctx.scope_ht, nullptr);
        g_ctx.scope_ht = 0;
    }
    log_dbg("%s: %lu enties added\n", __func__, nkht_count(table.handle));
    g_ctx.scope_ht = table.release();
    return 0;
}
