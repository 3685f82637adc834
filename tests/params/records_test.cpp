#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <typeinfo>

#include "test_files.h"
#include "veltrano.h"

using params_test::ScratchFile;
using params_test::Values;

namespace {

// Sets every listed field of a record to a value no default has, assigns the record to a fresh
// one and expects each field to have travelled.
template <class R, class... F>
void ExpectAssignmentCopies(F R::*... fields) {
    R source, target;
    int n = 0;
    ((source.*fields = static_cast<F>(101 + n++)), ...);
    target = source;
    auto same = [](auto a, auto b) { EXPECT_EQ(a, b) << typeid(R).name(); };
    (same(target.*fields, source.*fields), ...);
}

TEST(Records, MapRecordsSaveTheirSectionsAndReadBackWhatTheySaved) {
    ScratchFile file;
    clipParam clip(file.path());  // nothing to read yet: the defaults are saved
    clip.up = 1;
    clip.saveParam();
    struBilatralParam bil(file.path());
    bil.k_h = 7;
    bil.sigSpace_x = 1.75f;
    bil.saveParam();
    struWLNParam(file.path()).saveParam();
    struFastNLMParam(file.path()).saveParam();
    struUSMParam usm(file.path());  // deliberately in the non-local-means section
    usm.lam = 0.75f;
    usm.saveParam();
    // Every new key is inserted at the top of its section: reverse order of writing.
    EXPECT_EQ(file.read(),
              "[clipParam]\nright=200\nleft=200\ndown=20\nup=1\n"
              "\n[struBilatralParam]\nsigSpace_y=0.500000\nsigSpace_x=1.750000\n"
              "sigColor_y=0.500000\nsigColor_x=0.500000\nk_h=7\nk_w=5\n"
              "\n[WLNParam]\nspecifymax=65535\nspecifymin=0\nwr=0\nwl=0\n"
              "\n[struFastNLMParam]\nlam=0.750000\nisNeedNorm=0\nr=1\nh=3.000000\nrD=3\nrd=1\n");

    // Keys missing from the file keep the current values; loadParam reads the file again.
    file.write("[clipParam]\nleft=2\nup=-3\n[struFastNLMParam]\nr=4\nh=0.25\nlam=2\n");
    clip.loadParam();
    usm.loadParam();
    EXPECT_EQ(Values(clip.up, clip.down, clip.left, clip.right), Values(-3, 20, 2, 200));
    EXPECT_EQ(Values(usm.r, usm.isNeedNorm, usm.lam, struFastNLMParam(file.path()).h),
              Values(4, 0, 2, 0.25f));

    // Without a path, map records load zeros (the readers' answer to a null file name) and
    // list records load nothing.
    struBilatralParam noPath;
    noPath.loadParam();
    EXPECT_EQ(Values(noPath.k_w, noPath.sigSpace_y), Values(0, 0));
    noPath.getDefaultData();
    EXPECT_EQ(Values(noPath.k_w, noPath.sigSpace_y), Values(5, 0.5f));
    struAceGammaParam ace(2);
    ace.param1 = 99;
    ace.loadParam();
    EXPECT_EQ(ace.param1, 99);
}

TEST(Records, ClaheParamSavesButNeverReads) {
    ScratchFile file;
    file.write("[claheParam]\nwidthBlockNum=3\nheightBlockNum=4\nhistBin=64\npeak=10\n");
    EXPECT_EQ(claheParam().peak, 200);
    claheParam c(file.path());
    EXPECT_EQ(Values(c.widthBlockNum, c.heightBlockNum, c.histBin, c.peak, c.binScale, c.outMax),
              Values(8, 8, 256, 600, 0.5f, 65535));
    c.widthBlockNum = 2;
    c.saveParam();
    EXPECT_EQ(file.read(),
              "[claheParam]\nwidthBlockNum=2\nheightBlockNum=8\nhistBin=256\npeak=600\n");
}

TEST(Records, StruClaheParamLoadsChainKeysAndSavesFieldKeys) {
    ScratchFile file;
    file.write("[Post_Process_Param_2]\nparam1=40\nparam2=512\nparam3=4\nparam4=6\n");
    EXPECT_EQ(struClaheParam().peak, 200);
    struClaheParam c(file.path(), 2);
    EXPECT_EQ(Values(c.peak, c.histBin, c.widthBlockNum, c.heightBlockNum), Values(40, 512, 4, 6));
    c.saveParam();
    EXPECT_EQ(file.read(),
              "[Post_Process_Param_2]\nparam1=40\nparam2=512\nparam3=4\nparam4=6\n"
              "\n[struClaheParam]\npeak=40\nhistBin=512\nheightBlockNum=6\nwidthBlockNum=4\n");
    // What was saved is not what a load reads: another index keeps the load's reset values.
    const struClaheParam other(file.path(), 5);
    EXPECT_EQ(Values(other.peak, other.histBin, other.widthBlockNum, other.heightBlockNum),
              Values(600, 256, 8, 8));
    file.write("[Post_Process_Param_2]\nparam1=41\n");  // repeated loads re-read the same keys
    c.loadParam();
    c.loadParam();
    EXPECT_EQ(Values(c.peak, c.histBin), Values(41, 256));
}

TEST(Records, AceGammaUsesTheSectionOfItsIndex) {
    ScratchFile file;
    file.write(
        "[Post_Process_Param_2]\nparam1=1\n[Post_Process_Param_3]\nparam1=7\nparam2=1.5\n"
        "param3=2.25\nparam4=0.5\nparam5=1\nparam6=2\n");
    struAceGammaParam ace(file.path(), 3);
    EXPECT_EQ(Values(ace.param1, ace.param2, ace.param3, ace.param4, ace.param5, ace.param6),
              Values(7, 1.5f, 2.25f, 0.5f, 1, 2));
    // Saving writes the ints, then the floats; repeated loads before it change nothing.
    ScratchFile out("_out");
    struAceGammaParam saved(out.path(), 0);
    saved.loadParam();
    saved.param1 = 5;
    saved.saveParam();
    EXPECT_EQ(out.read(),
              "[Post_Process_Param_0]\nparam4=0.800000\nparam3=3.000000\nparam2=1.000000\n"
              "param6=0\nparam5=0\nparam1=5\n");
}

TEST(Records, CopiesActOnTheSourceAndAssignmentCopiesValuesAndPath) {
    ScratchFile file;
    file.write("[WLNParam]\nwl=1\nwr=2\n");
    auto source = std::make_unique<struWLNParam>(file.path());
    struWLNParam copy(*source);
    EXPECT_EQ(copy.filePath, source->filePath);  // the path text is shared
    file.write("[WLNParam]\nwl=9\n");
    copy.loadParam();
    // Loading through the copy fills the source.
    EXPECT_EQ(Values(source->wl, copy.wl), Values(9, 1));
    source.reset();
    copy.loadParam();  // the source is gone: nothing happens, the path text stays
    EXPECT_STREQ(copy.filePath, file.path());

    struWLNParam target;
    copy.wr = 77;
    target = copy;  // values and path copied, the target's own bindings kept
    EXPECT_EQ(Values(target.wl, target.wr), Values(1, 77));
    EXPECT_NE(target.filePath, copy.filePath);
    target.loadParam();
    EXPECT_EQ(Values(target.wl, copy.wl), Values(9, 1));
    char* const before = target.filePath;
    target = struWLNParam();  // a null source path keeps the own path
    EXPECT_EQ(target.filePath, before);
    EXPECT_EQ(target.wl, 0);

    ExpectAssignmentCopies<claheParam>(&claheParam::widthBlockNum, &claheParam::heightBlockNum,
                                       &claheParam::histBin, &claheParam::peak,
                                       &claheParam::binScale, &claheParam::outMax);
    ExpectAssignmentCopies<struClaheParam>(
        &struClaheParam::widthBlockNum, &struClaheParam::heightBlockNum, &struClaheParam::histBin,
        &struClaheParam::peak, &struClaheParam::binScale, &struClaheParam::outMax);
    ExpectAssignmentCopies<clipParam>(&clipParam::up, &clipParam::down, &clipParam::left,
                                      &clipParam::right);
    ExpectAssignmentCopies<struAceGammaParam>(
        &struAceGammaParam::param1, &struAceGammaParam::param2, &struAceGammaParam::param3,
        &struAceGammaParam::param4, &struAceGammaParam::param5, &struAceGammaParam::param6);
    ExpectAssignmentCopies<struBilatralParam>(
        &struBilatralParam::k_w, &struBilatralParam::k_h, &struBilatralParam::sigColor_x,
        &struBilatralParam::sigColor_y, &struBilatralParam::sigSpace_x,
        &struBilatralParam::sigSpace_y);
    ExpectAssignmentCopies<struFastNLMParam>(&struFastNLMParam::rd, &struFastNLMParam::rD,
                                             &struFastNLMParam::h);
    ExpectAssignmentCopies<struUSMParam>(&struUSMParam::r, &struUSMParam::isNeedNorm,
                                         &struUSMParam::lam);
    ExpectAssignmentCopies<struWLNParam>(&struWLNParam::wl, &struWLNParam::wr,
                                         &struWLNParam::specifymin, &struWLNParam::specifymax);

    struAceGammaParam ace3(3), ace7(7);  // the section index is not a value
    ace7.param1 = 1;
    ace3 = ace7;
    EXPECT_EQ(Values(ace3.sectionIndex, ace3.param1), Values(3, 1));
}

}  // namespace
