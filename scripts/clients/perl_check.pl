#!/usr/bin/perl
# A session of Perl's Chipcard::PCSC (Debian's libpcsc-perl) against the
# emulated rack: a context, the readers and their states, a connection to
# a slot with a card, its status, one exchange with the card, then the
# connection and the context given back.
#
# Run by scripts/test-clients.sh with what it told the emulator:
#   perl_check.pl NAMES ATR READER EMPTY
# NAMES: every reader, comma-separated, in the order the library lists them;
# ATR: every card's ATR as hex bytes split by blanks; READER: the slot to
# connect to, which holds a card; EMPTY: the readers without a card,
# comma-separated (may be ""). The cards must echo: a card answers each
# command with the command itself. Prints what it saw; exits 1 on the first
# difference.
use strict;
use warnings;

use Chipcard::PCSC;
use Chipcard::PCSC::Card;

# What it saw and why it stopped, in the order they happened.
$| = 1;

# The binding loads libpcsclite.so.1 by name when it is used, so the
# library that answers is the first one on LD_LIBRARY_PATH.

sub fail {
    print STDERR "perl: FAIL: @_\n";
    exit 1;
}

sub check {
    my ($what, $seen, $expected) = @_;
    print "perl: $what: $seen\n";
    fail("$what: \"$seen\", expected \"$expected\"") unless $seen eq $expected;
}

# A call that the rest of the session needs: its failure ends it, with the
# binding's last status, which holds the library's return code.
sub must {
    my ($what, $result) = @_;
    fail("$what: $Chipcard::PCSC::errno") unless defined $result;
    return $result;
}

sub hex_bytes { return join(' ', map { sprintf('%02X', $_) } @{ $_[0] }) }

@ARGV == 4 or fail('usage: perl_check.pl NAMES ATR READER EMPTY');
my @names = split /,/, $ARGV[0];
my $atr = uc $ARGV[1];
my $reader = $ARGV[2];
my %empty = map { $_ => 1 } split /,/, $ARGV[3];
my @apdu = (0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00);

my $context = must('SCardEstablishContext', Chipcard::PCSC->new($Chipcard::PCSC::SCARD_SCOPE_SYSTEM));

my @readers = $context->ListReaders();
must('SCardListReaders', $readers[0]);
check('readers', join(',', @readers), join(',', @names));

# Every reader's state at once, without waiting: a card with its ATR where
# the emulator put one, an empty slot everywhere else.
my @states = map { { reader_name => $_, current_state => $Chipcard::PCSC::SCARD_STATE_UNAWARE } } @readers;
must('SCardGetStatusChange', $context->GetStatusChange(\@states, 0));
for my $state (@states) {
    my $name = $state->{reader_name};
    my $event = $state->{event_state};
    if ($empty{$name}) {
        check("$name empty", ($event & $Chipcard::PCSC::SCARD_STATE_EMPTY) ? 'yes' : 'no', 'yes');
    } else {
        check("$name present", ($event & $Chipcard::PCSC::SCARD_STATE_PRESENT) ? 'yes' : 'no', 'yes');
        check("$name ATR", hex_bytes($state->{ATR}), $atr);
    }
}

my $card = must("SCardConnect to $reader",
    Chipcard::PCSC::Card->new($context, $reader, $Chipcard::PCSC::SCARD_SHARE_SHARED,
                              $Chipcard::PCSC::SCARD_PROTOCOL_T0 | $Chipcard::PCSC::SCARD_PROTOCOL_T1));
my $protocol = $card->{dwProtocol};
check('protocol is T=0 or T=1',
      ($protocol == $Chipcard::PCSC::SCARD_PROTOCOL_T0 || $protocol == $Chipcard::PCSC::SCARD_PROTOCOL_T1) ? 'yes' : 'no',
      'yes');

my @status = $card->Status();
must('SCardStatus', $status[0]);
my ($status_name, $status_state, $status_protocol, $status_atr) = @status;
check('SCardStatus reader', $status_name, $reader);
check('SCardStatus ATR', hex_bytes($status_atr), $atr);
check('SCardStatus protocol', $status_protocol, $protocol);
# A powered card with its protocol chosen, as pcsc-lite gives it: bits.
my $powered = $Chipcard::PCSC::SCARD_PRESENT | $Chipcard::PCSC::SCARD_POWERED | $Chipcard::PCSC::SCARD_SPECIFIC;
check('SCardStatus state is present, powered and specific', (($status_state & $powered) == $powered) ? 'yes' : 'no',
      'yes');

# The echo card answers with the command itself: its last two bytes come
# back as the status word.
my $answer = must('SCardTransmit', $card->Transmit([@apdu]));
check('answer', hex_bytes($answer), hex_bytes(\@apdu));

must('SCardDisconnect', $card->Disconnect($Chipcard::PCSC::SCARD_LEAVE_CARD));
check('SCardDisconnect', $Chipcard::PCSC::errno + 0, $Chipcard::PCSC::SCARD_S_SUCCESS);
undef $card;

# The binding releases the context when the object goes; its last status is
# what SCardReleaseContext returned.
undef $context;
check('SCardReleaseContext', $Chipcard::PCSC::errno + 0, $Chipcard::PCSC::SCARD_S_SUCCESS);
print "perl: all checks passed\n";
