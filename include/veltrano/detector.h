// CVeltrano: one intraoral sensor, reached through the driver library FpdSys.
//
// A host makes one object per sensor with a work directory, calls Initialize (loads the driver
// and creates its instance) and Connect (learns the sensor size), then AcqImageEx for each
// exposure. AcqImageEx blocks its caller until the image has arrived, been gain-corrected and
// had its defective pixels repaired; another host thread may meanwhile poll GetProgressBar and
// GetEndSign or end the wait with StopAcq. Deinit (or the destructor) releases the driver.
//
// Copies of an object share its driver binding and its events. Whichever copy calls Deinit
// first tears the binding down for all of them; the others then still hold the binding, but it
// answers as a driver library that is not loaded (code 6, zero attribute values), and their own
// Deinit and destructor do nothing more.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "veltrano/export.h"
#include "veltrano/imgmat.h"

namespace veltrano::detail {
class DriverBinding;
struct DetectorEvents;
}  // namespace veltrano::detail

// Online state of the sensor as the driver reports it. The driver's values 0, 1 and 2 map to the
// first three; anything else, and a missing driver binding, to Enm_Online_Unknown.
enum Enm_Online {
    Enm_Online_Offline = 0,
    Enm_Online_Online = 1,
    Enm_Online_Standby = 2,
    Enm_Online_Unknown = 3,
};

class VELTRANO_API CVeltrano {
public:
    // A null or empty workDir falls back to the text of "workdir_path.txt" (ReadWorkDirPath).
    explicit CVeltrano(const char* workDir);
    CVeltrano(const CVeltrano& other);
    CVeltrano& operator=(const CVeltrano& other);
    ~CVeltrano();

    // Lifecycle.
    int Initialize();
    int InitializeByPath(const char* path);
    int Connect();
    void Disconnect();
    void Deinit();
    void ReSet();
    void ReadUserRom();
    int UpdateFirmWare(const char* path);

    // Device queries.
    Enm_Online GetDectectorState();
    std::string GetDectectorSerialNum();
    std::string GetDectectorUSBInfo();
    int JudgeSensorSize();
    int GetSensorSize();

    // Acquisition and the host hand-shake.
    int AcqImageEx(imgmat& image, int delayTime, int triggerMode, int triggerThreshold);
    void StopAcq();
    int GetProgressBar();
    void SetProgressBar(int progress);
    int GetEndSign();
    void SetEndSign(int endSign);
    bool GetUserStop();
    void ResetUserStop();

    // Calibration and corrections.
    int GetAndCaliFile_Gain();
    int ReadCaliFile_Gain(imgmat& gain, int& level, const char* path, unsigned long long A,
                          unsigned long long B, unsigned long long offset, int type);
    void CalcGainMat(imgmat& flat, imgmat& gain);
    int GetBadPixelInfo();
    int DoGainCorrection(imgmat& image);
    int DoFixBadPixel(imgmat& image, imgmat& defects);
    // Negated natural logarithm of src into dst: 1 done, -1 no source image.
    int DoLog(imgmat& src, imgmat& dst);
    // Fills the two upper corners of side k by mirroring across their diagonals: 1 done, -1 no
    // source image, -2 a copy failed.
    int FillCutCorners(imgmat& src, imgmat& dst, int k);

    // The process-wide list of detector objects and the driver's callback.
    void RegisterMember();
    static CVeltrano* JudgePtrByID(int id);
    static int SDKCallbackHandler(int detectorId, int eventId, int unused1, const char* message,
                                  int param1, int param2, int unused2, void* data);

    // The first line of "..\common\workdir_path.txt" or else "workdir_path.txt" (with the
    // platform's path separator), trailing line breaks removed; empty when neither opens.
    static std::string ReadWorkDirPath();

protected:
    int SetDelayTime(int delayTime);
    int SetTriggerMode(int triggerMode);
    int SetTriggerThreshold(int triggerThreshold);
    // Arms the sensor and waits for the callback's image: 0 image, -1 the wait failed, -2 the
    // host stopped it.
    int WaitForImage();
    // The outlier statistics of a corrected image, outside the two upper corners of side
    // cornerCut: the low and high levels and a map (the size of the defect map) marking the
    // pixels outside them with 1.0. The acquisition computes them but leaves the image as it is.
    void CalcOutlierMarks(const imgmat& image, int cornerCut, int& lowLevel, int& highLevel,
                          imgmat& marks);

private:
    // The steps of AcqImageEx. ReadyForExposure checks the host's hand-shake and the sensor
    // size; ExposeAndCorrect runs from loading the calibration to the corrected image and
    // returns the acquisition's code; FinishAcquisition writes the end sign and progress.
    bool ReadyForExposure(bool sizeKnown);
    int ExposeAndCorrect(veltrano::detail::DriverBinding& binding, int cornerCut, imgmat& image,
                         int delayTime, int triggerMode, int triggerThreshold);
    bool LoadCalibration();
    int ApplyExposureSettings(int delayTime, int triggerMode, int triggerThreshold);
    bool TakeDeliveredImage(imgmat& image);
    void CorrectImage(imgmat& image, int cornerCut);
    int FinishAcquisition(int code);

    void CopyFrom(const CVeltrano& other);
    std::shared_ptr<veltrano::detail::DriverBinding> CurrentBinding() const;
    int ApplySetting(int attribute, int value, const char* const* messages);
    void StoreDeliveredImage(const void* record);
    // JudgePtrByID with the process-wide list's lock already held.
    static CVeltrano* FindByInstanceLocked(int id);

    int m_reserved[5];
    std::string m_usbInfo;
    std::string m_serialNum;
    std::string m_workDir;
    // Written by StopAcq and read by the acquisition on different host threads.
    std::atomic<bool> m_userStop;
    // Polled by a host thread while the acquisition writes them.
    std::atomic<int> m_progress;
    std::atomic<int> m_endSign;
    std::atomic<int> m_sensorSize;
    std::vector<imgmat> m_gainImages;
    std::vector<int> m_gainLevels;
    // Written by the driver's callback thread; guarded by the process-wide list's lock.
    imgmat m_rawImage;
    imgmat m_defectMap;
    // Shared by copies. The pointer itself changes only under the process-wide list's lock,
    // which the callback holds while it uses it.
    std::shared_ptr<veltrano::detail::DriverBinding> m_pDetInstance;
    // The next-step and auxiliary events, made once per object and shared by its copies, so a
    // StopAcq or a callback never meets a closed event.
    std::shared_ptr<veltrano::detail::DetectorEvents> m_events;
};
