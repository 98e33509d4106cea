// send_mail: the smallest useful host of Larkpost. Sends one message and reports progress.
//   send_mail SERVER PORT FROM TO SUBJECT BODY
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <larkpost/larkpost.h>

namespace {

class ProgressPrinter : public larkpost::MailClientEvents {
public:
    void SendProgress(const std::shared_ptr<larkpost::MailMessage>&, int32_t bytesSent,
                      int32_t totalBytes) override {
        std::printf("progress %d of %d\n", bytesSent, totalBytes);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: send_mail SERVER PORT FROM TO SUBJECT BODY\n");
        return 2;
    }
    try {
        auto message = std::make_shared<larkpost::MailMessage>();
        message->FromAddress(argv[3]);
        message->AddRecipient(argv[4]);
        message->SubjectLine(argv[5]);
        message->Body(argv[6]);

        larkpost::MailClient client;
        client.Server(argv[1]);
        client.Port(std::atoi(argv[2]));
        client.AddListener(std::make_shared<ProgressPrinter>());
        client.Connect();
        client.Send(message);
        client.Disconnect();
        std::printf("sent\n");
        return 0;
    } catch (const larkpost::RaisedError& error) {
        std::fprintf(stderr, "send_mail: error %d: %s\n", error.Number(), error.what());
        return 1;
    }
}
