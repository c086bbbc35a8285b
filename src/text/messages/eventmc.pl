#!/usr/bin/perl
# Turns the event-log lines of a message source into message compiler input:
#
#   eventmc.pl <source> <output.mc>
#
# "$event <identifier> <text>" gives an event message under its full 32-bit
# identifier (severity, facility and code are taken from it); "$category <n>
# <text>" gives the name of category n (identifier n). Every other line is
# the catalog's and is skipped. Texts end without a line break (%0).
use strict;
use warnings;

my ($in, $out) = @ARGV;
die "usage: eventmc.pl <source> <output.mc>\n" unless $in && $out;

open my $fh, '<:raw', $in or die "$in: $!\n";
my %msgs;
my $categories = 0;
while (my $line = <$fh>) {
  $line =~ s/\r?\n\z//;
  my ($id, $text);
  if ($line =~ /^\$event\s+(0x[0-9A-Fa-f]{1,8}|\d+)\s+(.+)\z/) {
    ($id, $text) = ($1, $2);
    $id = hex($id) if $id =~ /^0x/i;
  } elsif ($line =~ /^\$category\s+(\d+)\s+(.+)\z/) {
    ($id, $text) = ($1, $2);
    die "$in:$.: category 0 has no text\n" if $id == 0;
    $categories++;
  } else {
    next;
  }
  die "$in:$.: identifier $id given twice\n" if exists $msgs{$id};
  die "$in:$.: a text may not begin with a period\n" if $text =~ /^\./;
  $msgs{$id} = $text;
}
close $fh;
die "$in: no event-log texts\n" unless %msgs;

my %facilities = map { (($_ >> 16) & 0xFFF) => 1 } keys %msgs;
open my $o, '>:raw', $out or die "$out: $!\n";
print $o "; Generated from $in; edit that file instead.\n";
print $o "MessageIdTypedef=DWORD\n";
print $o "SeverityNames=(Success=0x0 Informational=0x1 Warning=0x2 Error=0x3)\n";
print $o "FacilityNames=(" . join(' ', map { sprintf('F%03x=0x%x', $_, $_) } sort { $a <=> $b } keys %facilities) . ")\n";
print $o "LanguageNames=(English=0x0409:MSG00409)\n\n";
my @sev = qw(Success Informational Warning Error);
for my $id (sort { $a <=> $b } keys %msgs) {
  printf $o "MessageId=0x%x\nSeverity=%s\nFacility=F%03x\nLanguage=English\n%s%%0\n.\n\n",
    $id & 0xFFFF, $sev[($id >> 30) & 3], ($id >> 16) & 0xFFF, $msgs{$id};
}
close $o or die "$out: $!\n";
