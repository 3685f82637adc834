// The C interface's parameter records: each C structure carries the value fields of one C++
// record, and Fields lists the pairs once for both directions of the copy.
#pragma once

#include "capi/capi_support.h"
#include "veltrano/params.h"

namespace veltrano::capi {

template <class Copy>
void Fields(Copy copy, vt_claheParam& c, claheParam& r) {
    copy(c.widthBlockNum, r.widthBlockNum);
    copy(c.heightBlockNum, r.heightBlockNum);
    copy(c.histBin, r.histBin);
    copy(c.peak, r.peak);
    copy(c.binScale, r.binScale);
    copy(c.outMax, r.outMax);
}

template <class Copy>
void Fields(Copy copy, vt_struClaheParam& c, struClaheParam& r) {
    copy(c.widthBlockNum, r.widthBlockNum);
    copy(c.heightBlockNum, r.heightBlockNum);
    copy(c.histBin, r.histBin);
    copy(c.peak, r.peak);
    copy(c.binScale, r.binScale);
    copy(c.outMax, r.outMax);
    copy(c.sectionIndex, r.sectionIndex);
}

template <class Copy>
void Fields(Copy copy, vt_clipParam& c, clipParam& r) {
    copy(c.up, r.up);
    copy(c.down, r.down);
    copy(c.left, r.left);
    copy(c.right, r.right);
}

template <class Copy>
void Fields(Copy copy, vt_struAceGammaParam& c, struAceGammaParam& r) {
    copy(c.param1, r.param1);
    copy(c.param2, r.param2);
    copy(c.param3, r.param3);
    copy(c.param4, r.param4);
    copy(c.param5, r.param5);
    copy(c.param6, r.param6);
    copy(c.sectionIndex, r.sectionIndex);
}

template <class Copy>
void Fields(Copy copy, vt_struBilatralParam& c, struBilatralParam& r) {
    copy(c.k_w, r.k_w);
    copy(c.k_h, r.k_h);
    copy(c.sigColor_x, r.sigColor_x);
    copy(c.sigColor_y, r.sigColor_y);
    copy(c.sigSpace_x, r.sigSpace_x);
    copy(c.sigSpace_y, r.sigSpace_y);
}

template <class Copy>
void Fields(Copy copy, vt_struFastNLMParam& c, struFastNLMParam& r) {
    copy(c.rd, r.rd);
    copy(c.rD, r.rD);
    copy(c.h, r.h);
}

template <class Copy>
void Fields(Copy copy, vt_struUSMParam& c, struUSMParam& r) {
    copy(c.r, r.r);
    copy(c.isNeedNorm, r.isNeedNorm);
    copy(c.lam, r.lam);
}

template <class Copy>
void Fields(Copy copy, vt_struWLNParam& c, struWLNParam& r) {
    copy(c.wl, r.wl);
    copy(c.wr, r.wr);
    copy(c.specifymin, r.specifymin);
    copy(c.specifymax, r.specifymax);
}

template <class Copy>
void Fields(Copy copy, vt_struImageBaseParam& c, struImageBaseParam& r) {
    copy(c.offset, r.offset);
    copy(c.gain, r.gain);
    copy(c.gamma, r.gamma);
    copy(c.width, r.width);
    copy(c.height, r.height);
}

// The C structure's values into the record (the record keeps its own key bindings and path).
template <class CRecord, class Record>
void ToRecord(const CRecord& c, Record& r) {
    Fields([](auto& from, auto& to) { to = from; }, const_cast<CRecord&>(c), r);
}

// The record's values into the C structure.
template <class CRecord, class Record>
void FromRecord(const Record& r, CRecord& c) {
    Fields([](auto& to, auto& from) { to = from; }, c, const_cast<Record&>(r));
}

// Calls f with a C++ record holding the C structure's values (null for a null structure) and
// copies the record's values back afterwards, since some functions update their record.
template <class Record, class CRecord, class F>
int WithRecord(CRecord* c, F&& f) {
    if (c == nullptr) {
        return f(static_cast<Record*>(nullptr));
    }
    Record record;
    ToRecord(*c, record);
    const int result = f(&record);
    FromRecord(record, *c);
    return result;
}

}  // namespace veltrano::capi
