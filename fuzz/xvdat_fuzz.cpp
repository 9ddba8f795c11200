// Scripts of operations on the three containers, also from within their callbacks and with failing
// reallocations. Input: a byte that chooses the container (% 3) and its kind, a byte for its size, then
// operations of a byte and an argument. After each operation the records are held against what a plain look
// at the map says.
#include "wrap.h"
#include "xvdat.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

int g_fail_in = 0; // how many reallocations from now on one fails

} // namespace

WRAPPED(void*, realloc, (void* block, size_t size));

extern "C" {
void* __wrap_realloc(void* block, size_t size)
{
    if (g_fail_in > 0 && --g_fail_in == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_realloc(block, size);
}
}

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

constexpr size_t kSize = 3; // an odd one: elements are not aligned

struct Script {
    const uint8_t* data;
    size_t size;

    uint8_t next()
    {
        if (size == 0) {
            return 0;
        }
        --size;
        return *data++;
    }

    size_t argument(size_t limit) { return limit > 0 ? next() % limit : 0; }
};

// A capacity to ask for; the greatest arguments are ones that no memory has.
size_t capacity_of(size_t argument)
{
    switch (argument) {
    case 253: return SIZE_MAX;
    case 254: return SIZE_MAX / 5;
    case 255: return SIZE_MAX / 2;
    default: return argument * 3;
    }
}

// What the callbacks of a run do, once each.
struct Act {
    uint8_t what = 0;
    size_t argument = 0;
};

xvec g_vector;
xvlst g_list;
emblst* g_embedded = nullptr;
Act g_act;
size_t g_calls = 0;

void write_element(void* data, size_t index)
{
    memset(static_cast<char*>(data) + index * kSize, static_cast<int>(index % 251) + 1, kSize);
}

bool element_is_own(const void* data, size_t index)
{
    const char* at = static_cast<const char*>(data) + index * kSize;
    return static_cast<uint8_t>(at[0]) == index % 251 + 1 && memcmp(at, at + 1, kSize - 1) == 0;
}

// ---- slot list ------------------------------------------------------------------------------------------

ssize_t lowest_free(const char* map, size_t max)
{
    const void* free_slot = map != nullptr ? memchr(map, 0, max) : nullptr;
    return free_slot != nullptr ? static_cast<const char*>(free_slot) - map : -1;
}

void check_list()
{
    const xvlst& l = g_list;
    xvlst_walk walk = {0, 0};
    if (l.taken == nullptr) {
        require(xvlst_next(&l, &walk) == -1);
        require(l.max_len == 0 || l.data != nullptr);
        return;
    }
    size_t taken = 0;
    for (size_t i = 0; i < l.max_len; ++i) {
        taken += l.taken[i] != 0 ? 1 : 0;
        require(l.taken[i] == 0 || (i <= l.last && element_is_own(l.data, i)));
    }
    require(l.len == taken);
    for (ssize_t i = xvlst_next(&l, &walk); i >= 0; i = xvlst_next(&l, &walk)) {
        require(l.taken[i] != 0 && taken > 0);
        --taken;
    }
    require(taken == 0);
    require(l.avail == lowest_free(l.taken, l.max_len));
}

void add_to_list(size_t growblk)
{
    const bool lost = g_list.max_len != 0 && g_list.taken == nullptr;
    const size_t old_max = g_list.max_len;
    const ssize_t expected = g_list.avail >= 0 ? g_list.avail : static_cast<ssize_t>(old_max);
    const ssize_t slot = xvlst_add(&g_list, kSize, growblk);
    require(slot < 0 || (slot == expected && !lost));
    require(slot != ERR_XV_FIXED || (g_list.flags & XV_FIXED_SIZE) != 0);
    if (slot >= 0) {
        write_element(g_list.data, static_cast<size_t>(slot));
    }
}

void act_on_list()
{
    const Act act = g_act;
    g_act = {};
    switch (act.what % 8) {
    case 1: add_to_list(1 + act.argument % 7); break;
    case 2:
        if (g_list.len > 0) {
            xvlst_del(&g_list, act.argument, nullptr);
        }
        break;
    case 3:
        xvlst_reset(&g_list);
        if (act.argument % 2 != 0) { // a smaller one
            add_to_list(1);
        }
        break;
    case 4: xvlst_purge_all(&g_list, nullptr); break;
    case 5: xvlst_reserve(&g_list, act.argument * 2, kSize, 5); break;
    case 6:
        add_to_list(3);
        add_to_list(3);
        break;
    default: break;
    }
}

int list_step(void* data, size_t index)
{
    require(data == g_list.data && g_list.taken[index] != 0 && element_is_own(data, index));
    act_on_list();
    return ++g_calls % 5 == 0 ? 1 : 0;
}

int list_step_aux(void* data, size_t index, void*)
{
    return list_step(data, index);
}

// It may free a slot itself, also the one that it is asked about.
int list_matches(void*, size_t index, void* of)
{
    if (g_act.what % 8 == 2 && g_list.len > 1) {
        const Act act = g_act;
        g_act = {};
        xvlst_del(&g_list, act.argument, nullptr);
    }
    return index % *static_cast<size_t*>(of) == 0 ? 1 : 0;
}

void list_cleanup(void* data, size_t index)
{
    require(data == g_list.data && element_is_own(data, index));
    act_on_list();
}

void run_list(uint8_t kind, size_t count, Script script)
{
    g_list = NULL_xvlst;
    std::unique_ptr<char[]> buffer;
    if (kind == 1) {
        const size_t bytes = count * (kSize + 1) + count % 3;
        buffer = std::make_unique<char[]>(bytes);
        require(xvlst_bind(&g_list, buffer.get(), bytes, kSize) == (bytes > kSize ? 0 : -1));
    } else if (kind == 2) {
        require(xvlst_mmap_fixed(&g_list, count, kSize) == (count > 0 ? 0 : ENOMEM));
    }
    while (script.size > 0) {
        const uint8_t operation = script.next();
        size_t argument = script.next();
        size_t pos = 0;
        g_act = {static_cast<uint8_t>(operation >> 4), argument};
        switch (operation % 12) {
        case 0:
        case 1: add_to_list(1 + argument % 9); break;
        case 2:
            if (g_list.len > 0) {
                xvlst_del(&g_list, argument, nullptr);
            }
            break;
        case 3:
            if (g_list.len > 0) {
                xvlst_del(&g_list, argument, list_cleanup);
            }
            break;
        case 4: xvlst_each(&g_list, list_step, argument % 2 != 0 ? &pos : nullptr); break;
        case 5: xvlst_find(&g_list, nullptr, list_step_aux, &pos); break;
        case 6:
            argument = 1 + argument % 9;
            require(xvlst_rmif(&g_list, &argument, list_matches, nullptr) >= -1);
            break;
        case 7: xvlst_reserve(&g_list, capacity_of(argument), kSize, 1 + argument % 9); break;
        case 8: g_fail_in = argument % 2 != 0 ? 2 : 1; break;
        case 9: xvlst_purge_all(&g_list, g_list.taken != nullptr ? list_cleanup : nullptr); break;
        case 10: xvlst_each_aux(&g_list, nullptr, list_step_aux, &pos); break;
        default:
            if (argument == 7) {
                xvlst_reset(&g_list);
            }
            break;
        }
        check_list();
    }
    g_fail_in = 0;
    xvlst_reset(&g_list);
}

// ---- vector ---------------------------------------------------------------------------------------------

int vector_step(void* data, size_t index)
{
    require(data == g_vector.data && index < g_vector.max_len);
    const Act act = g_act;
    g_act = {};
    if (act.what % 3 == 1) {
        const ssize_t at = xvec_add(&g_vector, kSize, 1 + act.argument % 9);
        if (at >= 0) {
            write_element(g_vector.data, static_cast<size_t>(at));
        }
    } else if (act.what % 3 == 2) {
        xvec_reset(&g_vector);
        if (act.argument % 2 != 0 && xvec_add(&g_vector, kSize, 1) >= 0) { // a smaller one
            write_element(g_vector.data, 0);
        }
    }
    return ++g_calls % 5 == 0 ? 1 : 0;
}

int vector_step_aux(void* data, size_t index, void*)
{
    return vector_step(data, index);
}

void run_vector(uint8_t kind, size_t count, Script script)
{
    g_vector = NULL_xvec;
    std::unique_ptr<char[]> buffer;
    if (kind == 1) {
        buffer = std::make_unique<char[]>(count);
        xvec_bind(&g_vector, buffer.get(), count, kSize);
        if (count < kSize) {
            return;
        }
    }
    while (script.size > 0) {
        const uint8_t operation = script.next();
        const size_t argument = script.next();
        size_t pos = 0;
        g_act = {static_cast<uint8_t>(operation >> 4), argument};
        switch (operation % 7) {
        case 0:
        case 1: {
            const size_t len = g_vector.len;
            const ssize_t at = xvec_add(&g_vector, kSize, 1 + argument % 9);
            require(at == -1 || at == static_cast<ssize_t>(len));
            if (at >= 0) {
                write_element(g_vector.data, len);
            }
            break;
        }
        case 2: xvec_reserve(&g_vector, capacity_of(argument), kSize, 1 + argument % 9); break;
        case 3:
            xvec_expand(&g_vector, argument < 253 ? 1 + argument : capacity_of(argument), kSize,
                        1 + argument % 9);
            break;
        case 4: g_fail_in = argument % 2 != 0 ? 2 : 1; break;
        case 5: xvec_each(&g_vector, vector_step, argument % 2 != 0 ? &pos : nullptr); break;
        default:
            if (argument == 7) {
                xvec_reset(&g_vector);
            } else if (argument % 2 != 0) {
                xvec_each_aux(&g_vector, vector_step_aux, nullptr, argument % 3 != 0 ? &pos : nullptr);
            } else {
                xvec_find(&g_vector, nullptr, vector_step_aux, argument % 3 != 0 ? &pos : nullptr);
            }
            break;
        }
        require(g_vector.len <= g_vector.max_len);
        for (size_t i = 0; i < g_vector.len; ++i) {
            require(element_is_own(g_vector.data, i));
        }
    }
    g_fail_in = 0;
    if (kind != 1) {
        xvec_reset(&g_vector);
    }
}

// ---- embedded list --------------------------------------------------------------------------------------

void add_to_embedded()
{
    const ssize_t expected = g_embedded->avail;
    const ssize_t slot = emblst_add(g_embedded);
    require(slot == expected);
    if (slot >= 0) {
        write_element(&g_embedded->data, static_cast<size_t>(slot));
    }
}

int embedded_step(void* data, size_t index)
{
    require(data == &g_embedded->data && element_is_own(data, index));
    const Act act = g_act;
    g_act = {};
    if (act.what % 3 == 1) {
        add_to_embedded();
    } else if (act.what % 3 == 2 && g_embedded->count > 0) {
        emblst_del(g_embedded, act.argument, nullptr);
    }
    return ++g_calls % 5 == 0 ? 1 : 0;
}

int embedded_step_aux(void* data, size_t index, void*)
{
    return embedded_step(data, index);
}

void embedded_cleanup(void* data, size_t index)
{
    embedded_step(data, index);
}

void check_embedded()
{
    const char* map = reinterpret_cast<const char*>(g_embedded) + g_embedded->taken_offt;
    size_t taken = 0;
    for (size_t i = 0; i < g_embedded->max_count; ++i) {
        taken += map[i] != 0 ? 1 : 0;
        require(map[i] == 0 || (i <= g_embedded->last && element_is_own(&g_embedded->data, i)));
    }
    require(g_embedded->count == taken && g_embedded->avail == lowest_free(map, g_embedded->max_count));
}

void run_embedded(size_t bytes, Script script)
{
    // Blocks of the exact size, aligned as malloc aligns.
    auto buffer = std::make_unique<char[]>(bytes);
    g_embedded = emblst_create(buffer.get(), bytes, kSize);
    if (g_embedded == nullptr) {
        require(bytes < offsetof(emblst, data) + kSize + 1);
        return;
    }
    while (script.size > 0) {
        const uint8_t operation = script.next();
        const size_t argument = script.next();
        size_t pos = 0;
        g_act = {static_cast<uint8_t>(operation >> 4), argument};
        switch (operation % 6) {
        case 0:
        case 1: add_to_embedded(); break;
        case 2:
            if (g_embedded->count > 0) {
                emblst_del(g_embedded, argument, argument % 2 != 0 ? embedded_cleanup : nullptr);
            }
            break;
        case 3: emblst_each(g_embedded, embedded_step, argument % 2 != 0 ? &pos : nullptr); break;
        case 4: {
            const size_t needed = static_cast<size_t>(g_embedded->taken_offt) + g_embedded->max_count;
            auto copy = std::make_unique<char[]>(needed);
            require(emblst_copy(g_embedded, copy.get(), needed - 1) == nullptr && errno == EINVAL);
            require(emblst_copy(g_embedded, copy.get(), needed) == copy.get());
            buffer = std::move(copy);
            g_embedded = reinterpret_cast<emblst*>(buffer.get());
            break;
        }
        default:
            emblst_each_aux(g_embedded, nullptr, embedded_step_aux, argument % 2 != 0 ? &pos : nullptr);
            break;
        }
        check_embedded();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 2000) {
        return 0;
    }
    Script script = {data, size};
    const uint8_t chosen = script.next();
    const size_t count = script.next();
    g_calls = 0;
    switch (chosen % 3) {
    case 0: run_list(chosen / 3 % 3, count, script); break;
    case 1: run_vector(chosen / 3 % 2, count, script); break;
    default: run_embedded(count * 2, script); break;
    }
    return 0;
}
