// wireloom: decode captures from the command line.
#include "Commands.hpp"

#include <cstring>

using namespace wireloom::cli;

void wireloom::cli::printUsage(std::FILE* to) {
    std::fputs(
        "usage: wireloom read FILE [--flows] [--http] [--mdns] [--format tree|json|oneline|none]\n"
        "                          [--color auto|always|never] [--filter WORDS] [--exclude WORDS]\n"
        "       wireloom capture [-i IFACE] [-f FILTER] [-c COUNT] [--duration SECONDS] [-w OUT.pcap]\n"
        "                        [--flows] [--http] [--mdns] [--format tree|oneline|json|none]\n"
        "                        [--color auto|always|never] [--filter WORDS] [--exclude WORDS]\n"
        "       wireloom search FILE WORDS [--exclude WORDS] [--interactive] [--flows] [--http]\n"
        "                       [--mdns] [--format tree|json|oneline] [--color auto|always|never]\n"
        "       wireloom follow FILE KEY [--direction 0|1]\n"
        "       wireloom devices\n"
        "\n"
        "  read    decode every frame of a capture file (pcap or pcapng)\n"
        "          --format tree     each layer as its report entries, indented (default)\n"
        "          --format json     one JSON object per frame and line\n"
        "          --format oneline  one line per frame: number, time, each layer\n"
        "          --format none     decode everything, print only a summary\n"
        "          --color           colours in tree output: auto (on a terminal), always, never\n"
        "          --flows           TCP and UDP conversations instead of frames, each shown\n"
        "                            when it ends, in the same formats\n"
        "          --http            HTTP exchanges (each request with its response) instead\n"
        "                            of frames, bodies read as property lists, JSON or text\n"
        "          --mdns            only the frames that carry multicast DNS; with --format\n"
        "                            json one line per message with its questions and records\n"
        "          --filter WORDS    only what holds every word (in any case) in its report\n"
        "                            text, hex dumps left out, or in its payload's printable text\n"
        "          --exclude WORDS   only what holds none of the words\n"
        "\n"
        "  capture live capture on IFACE (default: the first device libpcap lists) until\n"
        "          Ctrl-C, COUNT frames or SECONDS; frames (or --flows) printed as with read\n"
        "          (default oneline); -f a filter in libpcap's language; -w writes them as pcap;\n"
        "          --filter and --exclude choose what is printed as with read\n"
        "\n"
        "  search  index every frame (or, with --flows and --http, flow and exchange) of a\n"
        "          capture file once and print those that hold every word and none of\n"
        "          --exclude's; --interactive then reads one line of words after another\n"
        "          (WORDS [--exclude WORDS]) from standard input and prints the matches of each;\n"
        "          one-letter words do not see a source's first 12 characters\n"
        "\n"
        "  follow  the reassembled bytes of the TCP flow KEY (as read --flows names it:\n"
        "          ADDRESS:PORT-ADDRESS:PORT), both directions in order with a header line\n"
        "          per chunk; --direction 0 or 1 writes only what that endpoint sent, raw\n"
        "\n"
        "  devices every capture device with its type and addresses\n",
        to);
}

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        printUsage(stderr);
        return kExitUsage;
    }
    const std::string command = args.front();
    args.erase(args.begin());
    if (command == "read") return readCommand(args, stdout, stderr);
    if (command == "capture") return captureCommand(args, stdout, stderr);
    if (command == "devices") return devicesCommand(args, stdout, stderr);
    if (command == "follow") return followCommand(args, stdout, stderr);
    if (command == "search") return searchCommand(args, stdout, stderr);
    if (command == "--help" || command == "-h" || command == "help") {
        printUsage(stdout);
        return 0;
    }
    std::fprintf(stderr, "wireloom: unknown command '%s'\n", command.c_str());
    printUsage(stderr);
    return kExitUsage;
}
