#pragma once

#include <winscard.h>

#include <QMutex>
#include <QObject>
#include <QString>
#include <QVector>

// The PC/SC worker: owns one resource-manager context, keeps the list of attached
// readers, waits for card events and reads the identifier of every card laid on a
// reader. It is meant to be moved to a thread of its own, whose start runs process().
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

    explicit SmartCardController(QObject* parent = nullptr);
    ~SmartCardController() override;

    bool Initialize();
    QVector<QString> GetAvailableReaders();
    QVector<QString> GetReaders();
    DWORD getReaderState(const char* name, SCARD_READERSTATE* states, unsigned long count);
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

public slots:
    void process();

private:
    void processCard(const char* reader);
    bool connectCard(const char* reader);
    QVector<unsigned char> getCardAtr(QString reader);
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
    QMutex runningMutex;
    QMutex readersMutex;
    QVector<QString> readers;
    bool running;
};
