// SPDX-License-Identifier: Apache-2.0
#include "capture_decode.h"

#include <netinet/in.h>
#include <pcap/dlt.h>

#include <algorithm>
#include <cstring>

#include "dm_udp.h"

namespace dmctl {

namespace {

constexpr double kFragmentLifeS = 10;
constexpr size_t kMaxPartials = 64; // datagrams being reassembled at once

uint64_t number(const uint8_t *p, size_t size, bool big_endian)
{
    uint64_t v = 0;
    for (size_t i = 0; i < size; ++i) {
        v = v << 8 | p[big_endian ? i : size - 1 - i];
    }
    return v;
}

} // namespace

// ---- Packets to UDP datagrams ---------------------------------------------------------

long ipv4_offset(int dlt, const uint8_t *p, size_t len)
{
    size_t off = 0;
    uint16_t proto = 0;
    switch (dlt) {
    case DLT_EN10MB:
        off = 12;
        while (off + 2 <= len && (be16(p + off) == 0x8100 || be16(p + off) == 0x88a8)) {
            off += 4; // VLAN tags
        }
        if (off + 2 > len) {
            return -1;
        }
        proto = be16(p + off);
        off += 2;
        break;
    case DLT_LINUX_SLL: // the "any" device
        if (len < 16) {
            return -1;
        }
        proto = be16(p + 14);
        off = 16;
        break;
    case DLT_LINUX_SLL2:
        if (len < 20) {
            return -1;
        }
        proto = be16(p);
        off = 20;
        break;
    case DLT_NULL:
    case DLT_LOOP:
        off = 4;
        proto = 0x0800;
        break;
    case DLT_RAW:
    case DLT_IPV4:
        proto = 0x0800;
        break;
    default:
        return -1;
    }
    if (proto != 0x0800 || off >= len || (p[off] >> 4) != 4) {
        return -1;
    }
    return static_cast<long>(off);
}

bool parse_ipv4(const uint8_t *p, size_t len, Ipv4Packet &out)
{
    if (len < 20) {
        return false;
    }
    const size_t header = static_cast<size_t>(p[0] & 0x0f) * 4;
    const size_t total = be16(p + 2);
    if (header < 20 || total < header || total > len || p[9] != IPPROTO_UDP) {
        return false;
    }
    memcpy(&out.src, p + 12, 4);
    memcpy(&out.dst, p + 16, 4);
    out.id = be16(p + 4);
    out.frag_offset = static_cast<uint32_t>(be16(p + 6) & 0x1fff) * 8;
    out.more_fragments = (p[6] & 0x20) != 0;
    out.body = p + header;
    out.body_len = total - header;
    return true;
}

std::optional<std::vector<uint8_t>> Reassembly::add(const Ipv4Packet &frag, double ts)
{
    expire(ts);
    Partial *part = find(frag);
    if (part == nullptr) {
        if (partials_.size() >= kMaxPartials) {
            incomplete_ += ours(partials_.front()) ? 1 : 0;
            partials_.erase(partials_.begin());
        }
        partials_.push_back({frag.src, frag.dst, frag.id, ts, {}, {}, -1});
        part = &partials_.back();
    }
    const size_t end = frag.frag_offset + frag.body_len;
    if (end > 65535) {
        return std::nullopt;
    }
    if (part->bytes.size() < end) {
        part->bytes.resize(end);
    }
    std::copy(frag.body, frag.body + frag.body_len, part->bytes.begin() + frag.frag_offset);
    part->pieces.emplace_back(frag.frag_offset, end);
    if (!frag.more_fragments) {
        part->total = static_cast<long>(end);
    }
    if (!complete(*part)) {
        return std::nullopt;
    }
    std::vector<uint8_t> whole = std::move(part->bytes);
    whole.resize(static_cast<size_t>(part->total));
    partials_.erase(partials_.begin() + (part - partials_.data()));
    return whole;
}

uint64_t Reassembly::incomplete() const
{
    return incomplete_ + static_cast<uint64_t>(std::count_if(
                             partials_.begin(), partials_.end(),
                             [this](const Partial &p) { return ours(p); }));
}

// Whether its first fragment is in and names our port.
bool Reassembly::ours(const Partial &p) const
{
    const bool has_first = std::any_of(p.pieces.begin(), p.pieces.end(), [](const auto &piece) {
        return piece.first == 0 && piece.second >= 4;
    });
    return has_first && (be16(p.bytes.data()) == port_ || be16(p.bytes.data() + 2) == port_);
}

Reassembly::Partial *Reassembly::find(const Ipv4Packet &frag)
{
    for (Partial &p : partials_) {
        if (p.src == frag.src && p.dst == frag.dst && p.id == frag.id) {
            return &p;
        }
    }
    return nullptr;
}

bool Reassembly::complete(Partial &part)
{
    if (part.total < 0) {
        return false;
    }
    std::sort(part.pieces.begin(), part.pieces.end());
    size_t covered = 0;
    for (const auto &[begin, end] : part.pieces) {
        if (begin > covered) {
            return false;
        }
        covered = std::max(covered, end);
    }
    return covered >= static_cast<size_t>(part.total);
}

void Reassembly::expire(double now)
{
    const auto old = [now](const Partial &p) { return now - p.first_ts > kFragmentLifeS; };
    const auto gone = std::stable_partition(partials_.begin(), partials_.end(),
                                            [&old](const Partial &p) { return !old(p); });
    incomplete_ += static_cast<uint64_t>(
        std::count_if(gone, partials_.end(), [this](const Partial &p) { return ours(p); }));
    partials_.erase(gone, partials_.end());
}

// ---- UDP datagrams to frames ----------------------------------------------------------

Verdict decode_frame(const uint8_t *p, size_t len, Frame &out)
{
    if (len != DM_UDP_FRAME_LEN) {
        return Verdict::wrong_length;
    }
    if (p[4] != 0 || p[5] != 0) {
        return Verdict::bad_reserved;
    }
    if (p[6] == 1 && p[7] == 0) {
        out.big_endian = false;
    } else if (p[6] == 0 && p[7] == 1) {
        out.big_endian = true;
    } else {
        return Verdict::bad_marker;
    }
    out.src_port = static_cast<uint16_t>(number(p, 2, out.big_endian));
    out.dst_port = static_cast<uint16_t>(number(p + 2, 2, out.big_endian));
    out.data_len = static_cast<uint16_t>(number(p + 8, 2, out.big_endian));
    out.type = static_cast<uint32_t>(number(p + 10, 4, out.big_endian));
    out.peer_id = static_cast<uint32_t>(number(p + 14, 4, out.big_endian));
    out.req_id = number(p + 18, 8, out.big_endian);
    out.data = p + DM_UDP_HEADER_LEN;
    return Verdict::frame;
}

} // namespace dmctl
