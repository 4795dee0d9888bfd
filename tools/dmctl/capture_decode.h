/* SPDX-License-Identifier: Apache-2.0 */
// What dmctl capture makes of a captured packet: the IPv4 UDP datagram in it (put back
// together when it came in fragments, as every frame does off the loopback), and the
// framework frame in that datagram. Knows nothing of libpcap beyond its link-type
// numbers, so that it reads packets from an interface and from a file alike.
#ifndef DMCTL_CAPTURE_DECODE_H
#define DMCTL_CAPTURE_DECODE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace dmctl {

// A big-endian 16-bit number, as in IP and UDP headers.
inline uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

// Where the IPv4 header starts in a packet of link type `dlt` (a pcap DLT_ value), or -1
// when the packet carries no IPv4.
long ipv4_offset(int dlt, const uint8_t *p, size_t len);

struct Ipv4Packet {
    uint32_t src = 0, dst = 0; // network order
    uint16_t id = 0;
    uint32_t frag_offset = 0; // bytes
    bool more_fragments = false;
    const uint8_t *body = nullptr; // after the IPv4 header; points into the packet
    size_t body_len = 0;
};

// False when the packet is not a whole IPv4 UDP packet (or fragment of one).
bool parse_ipv4(const uint8_t *p, size_t len, Ipv4Packet &out);

// Puts fragmented datagrams back together. A datagram of `port` whose fragments do not
// all come within 10 s (of packet time), or that is pushed out by newer ones (64 are
// kept), counts as incomplete. Fragments of other traffic come in too (their first
// fragment, the one with the ports, does not), and are never counted.
class Reassembly {
public:
    explicit Reassembly(uint16_t port) : port_(port) {}

    // The whole UDP datagram (header first) once every piece of it is in.
    std::optional<std::vector<uint8_t>> add(const Ipv4Packet &frag, double ts);

    // Datagrams of `port` given up on, and those still waiting for a piece.
    uint64_t incomplete() const;

private:
    struct Partial {
        uint32_t src, dst;
        uint16_t id;
        double first_ts;
        std::vector<uint8_t> bytes;
        std::vector<std::pair<size_t, size_t>> pieces; // [begin, end)
        long total;                                    // -1 until the last piece is in
    };

    bool ours(const Partial &p) const;
    Partial *find(const Ipv4Packet &frag);
    static bool complete(Partial &part);
    void expire(double now);

    uint16_t port_;
    std::vector<Partial> partials_;
    uint64_t incomplete_ = 0;
};

// A frame's header, decoded in the byte order its sender used.
struct Frame {
    bool big_endian = false;
    uint16_t src_port = 0, dst_port = 0; // the header's: the interfaces' configured ports
    uint16_t data_len = 0;
    uint32_t type = 0;
    uint32_t peer_id = 0;
    uint64_t req_id = 0;
    const uint8_t *data = nullptr; // the 4096-byte data area, in the datagram
};

enum class Verdict { frame, wrong_length, bad_marker, bad_reserved };

// Decodes the UDP payload `p` of `len` bytes when it is a well-formed frame: 4138 bytes,
// reserved field 0, marker 1 (in either byte order).
Verdict decode_frame(const uint8_t *p, size_t len, Frame &out);

} // namespace dmctl

#endif // DMCTL_CAPTURE_DECODE_H
