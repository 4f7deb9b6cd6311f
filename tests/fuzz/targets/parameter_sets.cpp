// Parameter sets: found in a configuration, read by both readers, bit by bit and list by list, always against
// the model, in copies that end where the bytes end.
//
//   mode:8  what the mode reads
//
// max_len: 2048
#include "media/parameter_sets.h"
#include "media/annex_b.h"
#include "media/rbsp_reader.h"
#include "media/scaling_lists.h"
#include "media/sequence_parameters.h"
#include "media/sps.h"
#include "support/h264_model.h"

namespace {

using h264_model::LooseBits;
using h264_model::Place;

struct SetsTarget {
    SetsTarget()
    {
        server.Logger = log.get();
        session.Server = &server;
    }
    CountingLog log;
    RtmpServer server = {};
    RtmpSession session = {};
};

// -------------------------------------------------------------------------------------------------- an SPS
// alone

void CheckExactReader(const FuzzBytes &bytes)
{
    const ExactCopy sps(bytes);
    VdCodecInfo read = {};
    read.bitrate = 4711;
    read.AvccBoxLen = 4712;
    ParseSPSHeader(sps.data(), sps.size(), &read);
    const h264_model::ExactSps expected = h264_model::ReadExactSps(bytes);
    FUZZ_CHECK(read.profileIdc == expected.profile && read.constraintFlags == expected.constraints);
    FUZZ_CHECK(read.levelIdc == expected.level);
    FUZZ_CHECK(read.width == expected.width && read.height == expected.height);
    FUZZ_CHECK(read.bitrate == 4711 && read.AvccBoxLen == 4712 && read.AvccBox == nullptr);
}

void CheckStandardReader(const FuzzBytes &bytes)
{
    const ExactCopy sps(bytes);
    SequenceParameters read = {11, 12, 13, 14, 15};
    const int status = ReadSequenceParameters(sps.data(), sps.size(), &read);
    const std::optional<h264_model::StandardSps> expected = h264_model::ReadStandardSps(bytes);
    FUZZ_CHECK(status == (expected.has_value() ? 0 : -1));
    const h264_model::StandardSps left = expected.value_or(h264_model::StandardSps{11, 12, 13, 14, 15});
    FUZZ_CHECK(read.ChromaFormatIdc == left.chromaFormat);
    FUZZ_CHECK(read.BitDepthLumaMinus8 == left.lumaDepth && read.BitDepthChromaMinus8 == left.chromaDepth);
    FUZZ_CHECK(read.Width == left.width && read.Height == left.height);
    if (status == 0) {
        FUZZ_CHECK(read.Width >= 1 && read.Width <= 16880 && read.Height >= 1 && read.Height <= 16880);
    }
}

void CheckSps(const FuzzBytes &sps)
{
    CheckExactReader(sps);
    CheckStandardReader(sps);
}

// ------------------------------------------------------------------------------------------------ a
// configuration

typedef const uint8_t *(*Extract)(RtmpSession *, const uint8_t *, int32_t, uint32_t *);

void CheckExtraction(SetsTarget *target, const FuzzBytes &bytes, Extract extract, int type)
{
    const ExactCopy data(bytes);
    uint32_t length = 0;
    const uint8_t *found = extract(&target->session, data.data(), static_cast<int32_t>(data.size()), &length);
    const std::optional<Place> expected = h264_model::FindExact(bytes, type);
    FUZZ_CHECK((found != nullptr) == expected.has_value());
    FUZZ_CHECK(target->log.takeCount() == (expected.has_value() ? 0 : 1));
    if (found != nullptr) {
        FUZZ_CHECK(data.holds(found, length));
        FUZZ_CHECK(*expected == (Place{static_cast<size_t>(found - data.data()), length}));
    }
}

// What was joined is found again by the exact procedures.
void CheckJoined(SetsTarget *target, const ParameterSetPair &sets)
{
    uint32_t length = 0;
    uint8_t *joined = JoinParameterSets(&sets, &length);
    FUZZ_CHECK(joined != nullptr && length == 12 + sets.SpsLen + sets.PpsLen);
    const FuzzBytes bytes(joined, joined + length);
    free(joined);
    const ExactCopy data(bytes);
    uint32_t spsLen = 0;
    uint32_t ppsLen = 0;
    const int32_t all = static_cast<int32_t>(length);
    const uint8_t *sps = ExtractSpsHeader(&target->session, data.data(), all, &spsLen);
    const uint8_t *pps = ExtractPpsHeader(&target->session, data.data(), all, &ppsLen);
    FUZZ_CHECK(sps != nullptr && spsLen == sets.SpsLen && memcmp(sps, sets.Sps, spsLen) == 0);
    FUZZ_CHECK(pps != nullptr && ppsLen == sets.PpsLen && memcmp(pps, sets.Pps, ppsLen) == 0);
    FUZZ_CHECK(target->log.takeCount() == 0);
}

void CheckFinding(SetsTarget *target, const FuzzBytes &bytes)
{
    const ExactCopy data(bytes);
    ParameterSetPair sets = {};
    const bool found = FindParameterSets(data.data(), data.size(), &sets);
    const std::optional<Place> sps = h264_model::FindStandard(bytes, 7);
    const std::optional<Place> pps = h264_model::FindStandard(bytes, 8);
    FUZZ_CHECK(found == (sps.has_value() && pps.has_value()));
    FUZZ_CHECK(target->log.takeCount() == 0);
    if (found) {
        FUZZ_CHECK(*sps == (Place{static_cast<size_t>(sets.Sps - data.data()), sets.SpsLen}));
        FUZZ_CHECK(*pps == (Place{static_cast<size_t>(sets.Pps - data.data()), sets.PpsLen}));
        CheckJoined(target, sets);
        CheckSps(FuzzBytes(sets.Sps, sets.Sps + sets.SpsLen));
    }
}

void CheckConfiguration(SetsTarget *target, const FuzzBytes &bytes)
{
    CheckExtraction(target, bytes, ExtractSpsHeader, 7);
    CheckExtraction(target, bytes, ExtractPpsHeader, 8);
    CheckFinding(target, bytes);
    const std::optional<Place> sps = h264_model::FindExact(bytes, 7);
    if (sps.has_value()) {
        CheckSps(h264_model::BytesAt(bytes, *sps));
    }
}

// NAL units of the input's choice behind start codes of any length, the SPS written field by field.
FuzzBytes AssembledConfiguration(FuzzInput *in)
{
    FuzzBytes out;
    while (in->size() > 0 && out.size() < 4096) {
        const uint8_t choices = in->byte();
        out.insert(out.end(), choices & 7, 0);
        out.push_back((choices & 8) != 0 ? in->byte() : 1);
        FuzzBytes nal = (choices & 16) != 0 ? h264_model::SpsWriter(in).write() : Take(in, in->byte());
        if ((choices & 32) != 0 && !nal.empty()) {
            nal[0] = (choices & 64) != 0 ? 0x68 : 0x67;
        }
        out.insert(out.end(), nal.begin(), nal.end());
    }
    return out;
}

// ------------------------------------------------------------------------------------------------ bits and
// lists

void CheckLooseStep(BitStructure *bits, LooseBits *model, uint8_t step, FuzzInput *in)
{
    switch (step % 5) {
    case 0: {
        const uint32_t count = step / 5 % 33;
        FUZZ_CHECK(BitStructureRead(bits, count) == model->read(count));
        return;
    }
    case 1:
        FUZZ_CHECK(BitStructureReadOne(bits) == model->one());
        return;
    case 2: {
        const int32_t count = step > 250 ? static_cast<int32_t>(in->number(4)) : step / 5 - 3;
        BitStructureSkip(bits, count);
        model->skip(count);
        return;
    }
    case 3:
        FUZZ_CHECK(BitStructureReadUe(bits) == model->ue());
        return;
    default:
        FUZZ_CHECK(BitStructureReadSe(bits) == model->se());
        return;
    }
}

void CheckPlace(const BitStructure &bits, const LooseBits &model)
{
    const uint64_t place =
        static_cast<uint64_t>(bits.cur - bits.start) * 8 + static_cast<uint64_t>(8 - bits.bitsLeft);
    FUZZ_CHECK(bits.cur <= bits.end && bits.bitsLeft >= 1 && bits.bitsLeft <= 8);
    FUZZ_CHECK(place == model.position());
}

void CheckBits(FuzzInput *in)
{
    const FuzzBytes steps = Take(in, in->byte());
    FuzzInput extra(steps.data(), steps.size());
    const FuzzBytes bytes = Rest(in);
    const ExactCopy data(bytes);
    BitStructure bits;
    BitStructureInit(&bits, data.data(), static_cast<int32_t>(data.size()));
    LooseBits model(bytes);
    for (const uint8_t step : steps) {
        CheckLooseStep(&bits, &model, step, &extra);
        CheckPlace(bits, model);
    }
}

// Bits of a NAL unit. Once broken, everything reads as zero.
void CheckStrictBits(FuzzInput *in)
{
    const FuzzBytes steps = Take(in, in->byte());
    const FuzzBytes bytes = Rest(in);
    const ExactCopy data(bytes);
    RbspReader bits = ReadRbspOf(data.data(), data.size());
    h264_model::StrictBits model(bytes);
    bool isBroken = false;
    for (const uint8_t step : steps) {
        const uint32_t most = step > 200 ? 0xFFFFFFFE : step * step;
        const int count = step / 3 % 33;
        int64_t expected = 0;
        try {
            expected = isBroken        ? 0
                       : step % 3 == 0 ? model.read(count)
                       : step % 3 == 1 ? model.ue(most)
                                       : model.se();
        } catch (const h264_model::NotWhole &) {
            isBroken = true;
        }
        if (step % 3 == 0) {
            FUZZ_CHECK(ReadRbspBits(&bits, static_cast<uint32_t>(count)) == expected);
        } else if (step % 3 == 1) {
            FUZZ_CHECK(ReadRbspUe(&bits, most) == expected);
        } else {
            FUZZ_CHECK(ReadRbspSe(&bits, -0x7FFFFFFF, 0x7FFFFFFF) == expected);
        }
        FUZZ_CHECK(bits.Broken == isBroken);
    }
}

void CheckLists(FuzzInput *in)
{
    const size_t size = (in->byte() & 1) != 0 ? 64 : 16;
    const FuzzBytes bytes = Rest(in);
    const FuzzBytes byDefault(size, 0xDD);
    const FuzzBytes fallback(size, 0xFA);
    const ExactCopy data(bytes);
    const ExactCopy defaults(byDefault);
    const ExactCopy fallbacks(fallback);
    const ExactCopy list{FuzzBytes(size)};
    BitStructure bits;
    BitStructureInit(&bits, data.data(), static_cast<int32_t>(data.size()));
    LooseBits model(bytes);
    for (int i = 0; i < 3; i++) {
        DecodeScalingList(&bits, list.data(), static_cast<int32_t>(size), defaults.data(), fallbacks.data());
        const FuzzBytes expected = h264_model::ScalingList(&model, size, byDefault, fallback);
        FUZZ_CHECK(memcmp(list.data(), expected.data(), size) == 0);
        CheckPlace(bits, model);
    }
    const ExactCopy lists4x4{FuzzBytes(LISTS_4X4_LEN)};
    const ExactCopy lists8x8{FuzzBytes(LISTS_8X8_LEN)};
    DecodeScalingMatrices(&bits, lists4x4.data(), lists8x8.data());
    h264_model::SkipScalingMatrices(&model);
    CheckPlace(bits, model);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    SetsTarget target;
    FuzzInput in(data, size);
    switch (in.byte() % 8) {
    case 0:
        CheckSps(Rest(&in));
        break;
    case 1:
    case 2:
        CheckSps(h264_model::SpsWriter(&in).write());
        break;
    case 3:
        CheckConfiguration(&target, Rest(&in));
        break;
    case 4:
        CheckConfiguration(&target, AssembledConfiguration(&in));
        break;
    case 5:
        CheckBits(&in);
        break;
    case 6:
        CheckStrictBits(&in);
        break;
    default:
        CheckLists(&in);
        break;
    }
    return 0;
}
