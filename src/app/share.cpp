#include "app/share.h"

#include <cstring>
#include <string>
#include <vector>

#include "numerics/ranks.h"

namespace sbas {
namespace {

struct Packer {
    std::vector<char> bytes;
    size_t at = 0;

    template <typename T>
    void put(const T& value)
    {
        const char* p = reinterpret_cast<const char*>(&value);
        bytes.insert(bytes.end(), p, p + sizeof value);
    }
    template <typename T>
    void take(T& value)
    {
        std::memcpy(&value, bytes.data() + at, sizeof value);
        at += sizeof value;
    }
    void put_text(const std::string& text)
    {
        put(static_cast<uint64_t>(text.size()));
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
    std::string take_text()
    {
        uint64_t n = 0;
        take(n);
        std::string text(bytes.data() + at, static_cast<size_t>(n));
        at += static_cast<size_t>(n);
        return text;
    }
};

// The fields of the record that the stages run by one rank change.
void pack(Packer& p, const CFG& cfg)
{
    p.put(cfg.ref_row);
    p.put(cfg.ref_col);
    p.put(cfg.ref_lat);
    p.put(cfg.ref_lon);
    p.put(cfg.loop_closure_mean_std_threshold);
    p.put(cfg.whole_ifg_closure_std_threshold);
    p.put(cfg.filelist);
    p.put(cfg.datafolder);
    p.put(static_cast<uint64_t>(cfg.ifg_names.size()));
    for (size_t k = 0; k < cfg.ifg_names.size(); ++k) {
        p.put_text(cfg.ifg_names[k]);
        p.put(cfg.ifg_date1[k]);
        p.put(cfg.ifg_date2[k]);
    }
}

void unpack(Packer& p, CFG& cfg)
{
    p.take(cfg.ref_row);
    p.take(cfg.ref_col);
    p.take(cfg.ref_lat);
    p.take(cfg.ref_lon);
    p.take(cfg.loop_closure_mean_std_threshold);
    p.take(cfg.whole_ifg_closure_std_threshold);
    p.take(cfg.filelist);
    p.take(cfg.datafolder);
    uint64_t n = 0;
    p.take(n);
    cfg.ifg_names.assign(static_cast<size_t>(n), std::string());
    cfg.ifg_date1.assign(static_cast<size_t>(n), 0);
    cfg.ifg_date2.assign(static_cast<size_t>(n), 0);
    for (size_t k = 0; k < n; ++k) {
        cfg.ifg_names[k] = p.take_text();
        p.take(cfg.ifg_date1[k]);
        p.take(cfg.ifg_date2[k]);
    }
}

}  // namespace

lib::Status on_first_rank(CFG& cfg, lib::Owned<float>* values, const std::function<lib::Status()>& stage)
{
    if (!lib::spread()) return stage();
    lib::Status status;
    if (lib::ranks().rank == 0) status = stage();
    return share_from_first_rank(cfg, values, std::move(status));
}

lib::Status share_from_first_rank(CFG& cfg, lib::Owned<float>* values, lib::Status status)
{
    if (!lib::spread()) return status;
    // Rank 0's outcome only: the others did not finish the stage.
    if (lib::ranks().rank != 0) status = lib::Status();
    SBAS_TRY(lib::agree(0, std::move(status)));
    Packer p;
    if (lib::ranks().rank == 0) {
        pack(p, cfg);
        if (values) {
            const uint64_t n = cfg.ifg_names.empty() ? 1 : cfg.ifg_names.size();
            for (uint64_t k = 0; k < n; ++k) p.put((*values)[static_cast<int64_t>(k)]);
        }
    }
    lib::broadcast(p.bytes, 0);
    if (lib::ranks().rank != 0) {
        unpack(p, cfg);
        if (values) {
            const int64_t n = cfg.ifg_names.empty() ? 1 : static_cast<int64_t>(cfg.ifg_names.size());
            *values = lib::Owned<float>::adopt(lib::per_interferogram(static_cast<size_t>(n)));
            for (int64_t k = 0; k < n; ++k) p.take((*values)[k]);
        }
    }
    return {};
}

}  // namespace sbas
