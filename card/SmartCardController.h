#pragma once

#include "CardClock.h"
#include "ReaderStates.h"

#include <winscard.h>

#include <QObject>
#include <QString>
#include <QVector>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// The PC/SC worker: owns one resource-manager context, keeps the list of attached readers,
// waits for card and reader events and reads the identifier of every card laid on a reader.
// It is meant to be moved to a thread of its own, whose start runs process(). The loop heals
// itself from every PC/SC failure except the loss of the service, which ends it with
// serviceLost(): only a new context can help then.
class SmartCardController : public QObject
{
    Q_OBJECT

public:
    enum CardType
    {
        Unknown = 0,
        AcosSmartCard = 1,
        RfidTag = 2
    };

    // A card left on a reader is read and reported again at each refresh.
    static constexpr std::chrono::milliseconds refreshInterval{15000};
    // How long one wait may last when PC/SC cannot announce readers that come or go.
    static constexpr std::chrono::milliseconds waitWithoutNotifications{1000};
    static constexpr std::chrono::milliseconds firstFailurePause{100};
    static constexpr std::chrono::milliseconds longestFailurePause{1000};
    // A failure that repeats is logged again at most this often.
    static constexpr std::chrono::seconds repeatedFailureLogInterval{60};

    explicit SmartCardController(QObject* parent = nullptr);
    ~SmartCardController() override;

    bool Initialize();
    // The readers of the latest listing, as announced. Callable from any thread.
    QVector<QString> GetReaders();
    DWORD getReaderState(const char* name, SCARD_READERSTATE* states, unsigned long count);
    // Ends the loop: cancels its wait or pause. Callable from any thread, and again.
    void stop();

    CardType getCardType(const QVector<unsigned char>& atr);
    QString getErrorMessage(int code);

signals:
    void onError(unsigned int code, QString message);
    void onRFID(QString cardID);
    void onSC(QString cardID);
    void onReaderConnect(QString reader);
    void onReaderDisconnect(QString reader);
    void cardInserted();
    void cardRemoved();
    void cardInvalid();
    void cardDataRead();
    void cardEmptyName();
    void cardWritingInProgress();
    void cardWritingDone();
    // The loop ended because the PC/SC service went away; every reader has been reported gone.
    void serviceLost();

public slots:
    void process();

private:
    enum class Listing
    {
        KeepStates,
        ReadCardsAgain
    };

    bool isRunning();
    LONG checkNotifications();
    LONG watchOnce();
    LONG refreshReaders(Listing listing);
    LONG waitForChanges();
    void handleChanges();
    void forgetReaders();
    void publishReaders();
    LONG listReaders(std::vector<std::string>& names);
    void reportFailure(LONG result);
    void pause(std::chrono::milliseconds duration);

    void processCard(const char* reader);
    bool connectCard(const char* reader);
    QVector<unsigned char> getCardAtr(const char* reader);
    bool beginCardTransaction();
    void endCardTransaction();
    void disconnectCard();
    bool sendAPDU(unsigned char* command, int commandLength, unsigned char* response, int responseSize,
                  int* responseLength);
    bool cardSelectFile(unsigned char high, unsigned char low);
    QVector<unsigned char> cardReadRecord(unsigned int offset, unsigned char count, unsigned char recordLength);
    void readRFID();
    void readSmartCard();
    void reportError(LONG result);

    SCARDCONTEXT context;
    SCARDHANDLE cardHandle;
    DWORD activeProtocol;

    std::mutex runningMutex;
    std::condition_variable stopRequested;
    bool running;

    std::mutex readersMutex;
    QVector<QString> readers;

    // The loop's own, touched by the card thread only.
    ReaderStates states;
    CardClock::Clock::time_point nextRefresh;
    bool listingDue = false;
    const char* failedCall = "";
    LONG lastLoggedFailure = SCARD_S_SUCCESS;
    CardClock::Clock::time_point lastFailureLog;
    int unloggedFailures = 0;
};
