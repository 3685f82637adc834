#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "test_files.h"
#include "veltrano.h"

using params_test::ScratchFile;

namespace {

// Most defaults show in the saved texts below; these are the ones no test saves.
TEST(Records, DefaultsOfFieldsThatAreNotSavedElsewhere) {
    const claheParam c;
    EXPECT_EQ(c.peak, 200);  // 600 only after a load
    EXPECT_EQ(c.binScale, 0.5f);
    EXPECT_EQ(c.outMax, 65535.0f);
    EXPECT_EQ(c.filePath, nullptr);
    const struFastNLMParam nlm;
    EXPECT_EQ(nlm.rd, 1);
    EXPECT_EQ(nlm.rD, 3);
    EXPECT_EQ(nlm.h, 3.0f);
    const struUSMParam usm;
    EXPECT_EQ(usm.r, 1);
    EXPECT_EQ(usm.isNeedNorm, 0);
    EXPECT_EQ(usm.lam, 0.5f);
    const struImageBaseParam base;
    EXPECT_EQ(base.offset, 0);
    EXPECT_EQ(base.gain, 1.0f);
    EXPECT_EQ(base.gamma, 1.0f);
    EXPECT_EQ(base.width, 0);
    EXPECT_EQ(base.height, 0);
}

TEST(Records, MapRecordsSaveTheirSectionsExactly) {
    ScratchFile file;
    clipParam clip(file.path());  // nothing to read yet: keeps its defaults
    EXPECT_EQ(clip.up, 20);
    clip.up = 1;
    clip.saveParam();
    // Every new key is inserted at the top of the section: reverse order of writing.
    EXPECT_EQ(file.read(), "[clipParam]\nright=200\nleft=200\ndown=20\nup=1\n");

    struBilatralParam bil(file.path());
    bil.k_h = 7;
    bil.sigSpace_x = 1.75f;
    bil.saveParam();
    struWLNParam wln(file.path());
    wln.specifymax = 4095;
    wln.saveParam();
    EXPECT_EQ(file.read(),
              "[clipParam]\nright=200\nleft=200\ndown=20\nup=1\n"
              "\n[struBilatralParam]\nsigSpace_y=0.500000\nsigSpace_x=1.750000\n"
              "sigColor_y=0.500000\nsigColor_x=0.500000\nk_h=7\nk_w=5\n"
              "\n[WLNParam]\nspecifymax=4095\nspecifymin=0\nwr=0\nwl=0\n");
}

TEST(Records, MapRecordsReadBackWhatTheySaved) {
    ScratchFile file;
    {
        struBilatralParam bil(file.path());
        bil.k_w = 9;
        bil.sigColor_x = 0.25f;
        bil.sigSpace_y = -1.5f;
        bil.saveParam();
    }
    const struBilatralParam bil(file.path());
    EXPECT_EQ(bil.k_w, 9);
    EXPECT_EQ(bil.k_h, 5);
    EXPECT_EQ(bil.sigColor_x, 0.25f);
    EXPECT_EQ(bil.sigSpace_y, -1.5f);

    // Keys missing from the file keep the current values; loadParam reads the file again.
    file.write("[clipParam]\nleft=1\n");
    clipParam clip(file.path());
    EXPECT_EQ(clip.up, 20);
    EXPECT_EQ(clip.left, 1);
    file.write("[clipParam]\nleft=2\nup=-3\n");
    clip.loadParam();
    EXPECT_EQ(clip.up, -3);
    EXPECT_EQ(clip.left, 2);
    EXPECT_EQ(clip.right, 200);
}

TEST(Records, UnsharpMaskingSharesTheNonLocalMeansSection) {
    ScratchFile file;
    struFastNLMParam nlm(file.path());
    nlm.rd = 2;
    nlm.rD = 7;
    nlm.h = 12.5f;
    nlm.saveParam();
    struUSMParam usm(file.path());
    usm.r = 3;
    usm.isNeedNorm = 1;
    usm.lam = 0.75f;
    usm.saveParam();
    EXPECT_EQ(file.read(),
              "[struFastNLMParam]\nlam=0.750000\nisNeedNorm=1\nr=3\nh=12.500000\nrD=7\nrd=2\n");

    const struFastNLMParam nlm2(file.path());
    EXPECT_EQ(nlm2.rd, 2);
    EXPECT_EQ(nlm2.rD, 7);
    EXPECT_EQ(nlm2.h, 12.5f);
    const struUSMParam usm2(file.path());
    EXPECT_EQ(usm2.r, 3);
    EXPECT_EQ(usm2.isNeedNorm, 1);
    EXPECT_EQ(usm2.lam, 0.75f);
}

TEST(Records, NullPathLoadZeroesMapFieldsAndSavesNothing) {
    struBilatralParam bil;
    bil.loadParam();
    EXPECT_EQ(bil.k_w, 0);
    EXPECT_EQ(bil.k_h, 0);
    EXPECT_EQ(bil.sigColor_x, 0.0f);
    EXPECT_EQ(bil.sigSpace_y, 0.0f);
    bil.getDefaultData();
    EXPECT_EQ(bil.k_w, 5);
    EXPECT_EQ(bil.sigSpace_y, 0.5f);

    struUSMParam usm;
    usm.loadParam();
    EXPECT_EQ(usm.r, 0);
    EXPECT_EQ(usm.lam, 0.0f);
    usm.getDefaultData();
    EXPECT_EQ(usm.r, 1);
    EXPECT_EQ(usm.lam, 0.5f);

    // A list-form record reads nothing without a path.
    struAceGammaParam ace(2);
    ace.param1 = 99;
    ace.loadParam();
    EXPECT_EQ(ace.param1, 99);

    // A missing file, by contrast, is just "not found".
    ScratchFile missing;
    const struWLNParam wln(missing.path());
    EXPECT_EQ(wln.specifymax, 65535);
    EXPECT_STREQ(wln.filePath, missing.path());
    EXPECT_EQ(missing.read(), "<missing>");
}

TEST(Records, ClaheParamSavesButNeverReads) {
    ScratchFile file;
    file.write("[claheParam]\nwidthBlockNum=3\nheightBlockNum=4\nhistBin=64\npeak=10\n");
    claheParam c(file.path());
    EXPECT_EQ(c.widthBlockNum, 8);
    EXPECT_EQ(c.heightBlockNum, 8);
    EXPECT_EQ(c.histBin, 256);
    EXPECT_EQ(c.peak, 600);
    EXPECT_EQ(c.binScale, 0.5f);
    EXPECT_EQ(c.outMax, 65535.0f);

    c.widthBlockNum = 2;
    c.heightBlockNum = 3;
    c.histBin = 128;
    c.peak = 50;
    c.saveParam();
    EXPECT_EQ(file.read(),
              "[claheParam]\nwidthBlockNum=2\nheightBlockNum=3\nhistBin=128\npeak=50\n");
    c.loadParam();
    EXPECT_EQ(c.widthBlockNum, 8);
    EXPECT_EQ(c.peak, 600);

    claheParam d;
    d = c;
    EXPECT_STREQ(d.filePath, file.path());
    ASSERT_NE(d.filePath, c.filePath);
}

TEST(Records, StruClaheParamLoadsChainKeysAndSavesFieldKeys) {
    ScratchFile file;
    file.write("[Post_Process_Param_2]\nparam1=40\nparam2=512\nparam3=4\nparam4=6\n");
    struClaheParam c(file.path(), 2);
    EXPECT_EQ(c.peak, 40);
    EXPECT_EQ(c.histBin, 512);
    EXPECT_EQ(c.widthBlockNum, 4);
    EXPECT_EQ(c.heightBlockNum, 6);
    EXPECT_EQ(c.sectionIndex, 2);

    c.saveParam();
    EXPECT_EQ(file.read(),
              "[Post_Process_Param_2]\nparam1=40\nparam2=512\nparam3=4\nparam4=6\n"
              "\n[struClaheParam]\npeak=40\nhistBin=512\nheightBlockNum=6\nwidthBlockNum=4\n");

    // Saved values are not what a load reads: another index finds no keys and keeps the reset
    // values, with the load's peak of 600.
    const struClaheParam other(file.path(), 5);
    EXPECT_EQ(other.peak, 600);
    EXPECT_EQ(other.histBin, 256);
    EXPECT_EQ(other.widthBlockNum, 8);
    EXPECT_EQ(other.heightBlockNum, 8);

    // Repeated loads re-read the same keys.
    file.write("[Post_Process_Param_2]\nparam1=41\n");
    c.loadParam();
    c.loadParam();
    EXPECT_EQ(c.peak, 41);
    EXPECT_EQ(c.histBin, 256);
}

TEST(Records, AceGammaUsesTheSectionOfItsIndex) {
    ScratchFile file;
    file.write(
        "[Post_Process_Param_2]\nparam1=1\n"
        "[Post_Process_Param_3]\nparam1=7\nparam2=1.5\nparam3=2.25\nparam4=0.5\nparam5=1\nparam6=1\n");
    struAceGammaParam ace(file.path(), 3);
    EXPECT_EQ(ace.param1, 7);
    EXPECT_EQ(ace.param2, 1.5f);
    EXPECT_EQ(ace.param3, 2.25f);
    EXPECT_EQ(ace.param4, 0.5f);
    EXPECT_EQ(ace.param5, 1);
    EXPECT_EQ(ace.param6, 1);

    // Saving writes the ints, then the floats, each new key on top of the section; repeated
    // loads before it change nothing.
    ScratchFile out("_out");
    struAceGammaParam saved(out.path(), 0);
    saved.loadParam();
    saved.loadParam();
    saved.param1 = 5;
    saved.saveParam();
    EXPECT_EQ(out.read(),
              "[Post_Process_Param_0]\nparam4=0.800000\nparam3=3.000000\nparam2=1.000000\n"
              "param6=0\nparam5=0\nparam1=5\n");
}

TEST(Records, CopiesActOnTheSourceAndOutliveIt) {
    ScratchFile file;
    file.write("[clipParam]\nup=1\ndown=2\nleft=3\nright=4\n");
    auto source = std::make_unique<clipParam>();
    source->up = 50;
    {
        clipParam copy(*source);
        EXPECT_EQ(copy.up, 50);
        EXPECT_EQ(copy.filePath, nullptr);
    }
    auto withPath = std::make_unique<clipParam>(file.path());
    clipParam copy(*withPath);
    EXPECT_EQ(copy.filePath, withPath->filePath);  // the path text is shared
    file.write("[clipParam]\nup=9\n");
    copy.loadParam();
    EXPECT_EQ(withPath->up, 9);  // loading through the copy fills the source
    EXPECT_EQ(copy.up, 1);
    withPath->down = 33;
    copy.saveParam();
    EXPECT_EQ(file.read(), "[clipParam]\nright=4\nleft=3\ndown=33\nup=9\n");

    // The copy keeps the path text after the source is gone; loading and saving through it
    // then does nothing.
    withPath.reset();
    EXPECT_STREQ(copy.filePath, file.path());
    copy.loadParam();
    copy.saveParam();
    EXPECT_EQ(copy.up, 1);
    EXPECT_EQ(file.read(), "[clipParam]\nright=4\nleft=3\ndown=33\nup=9\n");

    // A list-form copy appends its bindings to the source's lists: still the source's fields.
    ScratchFile chain("_chain");
    chain.write("[Post_Process_Param_1]\nparam1=8\nparam4=2.5\n");
    struAceGammaParam ace(chain.path(), 1);
    struAceGammaParam aceCopy(ace);
    chain.write("[Post_Process_Param_1]\nparam1=9\nparam4=3.5\n");
    aceCopy.loadParam();
    EXPECT_EQ(ace.param1, 9);
    EXPECT_EQ(ace.param4, 3.5f);
    EXPECT_EQ(aceCopy.param1, 8);
    EXPECT_EQ(aceCopy.param4, 2.5f);
}

TEST(Records, AssignmentCopiesValuesAndPathButKeepsOwnBindings) {
    ScratchFile a("_a");
    ScratchFile b("_b");
    a.write("[WLNParam]\nwl=1\n");
    b.write("[WLNParam]\nwl=2\n");
    struWLNParam target(a.path());
    struWLNParam source(b.path());
    source.wr = 77;
    target = source;
    EXPECT_EQ(target.wl, 2);
    EXPECT_EQ(target.wr, 77);
    EXPECT_STREQ(target.filePath, b.path());
    EXPECT_NE(target.filePath, source.filePath);

    b.write("[WLNParam]\nwl=5\n");
    target.loadParam();  // its own fields, from the new path
    EXPECT_EQ(target.wl, 5);
    EXPECT_EQ(source.wl, 2);

    // Self-assignment changes nothing; a null source path keeps the own path.
    char* const before = target.filePath;
    target = *&target;
    EXPECT_EQ(target.filePath, before);
    struWLNParam noPath;
    noPath.specifymax = 255;
    target = noPath;
    EXPECT_EQ(target.filePath, before);
    EXPECT_EQ(target.specifymax, 255);

    // The section index is not a value: it stays with the target.
    struAceGammaParam ace3(3);
    struAceGammaParam ace7(7);
    ace7.param1 = 1;
    ace3 = ace7;
    EXPECT_EQ(ace3.sectionIndex, 3);
    EXPECT_EQ(ace3.param1, 1);

    // Assigning a record built from a file is how the processing functions reload settings.
    ScratchFile c("_c");
    c.write("[clipParam]\nup=1\ndown=2\nleft=3\nright=4\n");
    clipParam passed;
    passed = clipParam(c.path());
    EXPECT_EQ(passed.up, 1);
    EXPECT_EQ(passed.right, 4);
    EXPECT_STREQ(passed.filePath, c.path());
}

}  // namespace
