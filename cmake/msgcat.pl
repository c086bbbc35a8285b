#!/usr/bin/perl
# Turns a message source into the input of a platform's catalog compiler.
#
#   msgcat.pl mc     <source> <output.mc>   message compiler input (Windows)
#   msgcat.pl gencat <source> <output.msg>  gencat input (POSIX)
#
# Source: "$set <n>" starts a set, other lines beginning with "$" are
# comments, "<number> <text>" is a message. In a text \n, \t, \r, \\ and
# \ooo (octal) are escapes; everything else is taken as it is (UTF-8).
#
# Both containers store a text in the library's 7-bit form: control bytes,
# bytes of 128 and above, "%", "\" and blanks at either end become a
# backslash and three octal digits, which the library's catalog reader turns
# back into bytes. The stored text has no line breaks and no "%", so neither
# compiler nor the system's message formatter changes it.
use strict;
use warnings;

my ($mode, $in, $out) = @ARGV;
die "usage: msgcat.pl mc|gencat <source> <output>\n" unless $mode && $in && $out && $mode =~ /^(mc|gencat)$/;

sub unescape_source {
  my ($t, $where) = @_;
  my %simple = (n => "\n", t => "\t", r => "\r", '\\' => '\\');
  $t =~ s{\\([0-7]{1,3}|.)}{
    my $e = $1;
    exists $simple{$e} ? $simple{$e} : ($e =~ /^[0-7]+$/ ? chr(oct($e) & 0xFF) : die "$where: unknown escape \\$e\n")
  }ge;
  return $t;
}

sub stored_form {
  my ($bytes) = @_;
  my @c = split //, $bytes;
  my $s = '';
  for my $i (0 .. $#c) {
    my $o = ord $c[$i];
    my $edge = ($i == 0 || $i == $#c);
    if ($o < 32 || $o >= 127 || $c[$i] eq '%' || $c[$i] eq '\\' || ($edge && $c[$i] eq ' ') || ($i == 0 && $c[$i] eq '.')) {
      $s .= sprintf('\\%03o', $o);
    } else {
      $s .= $c[$i];
    }
  }
  return $s;
}

open my $fh, '<:raw', $in or die "$in: $!\n";
my (%msgs, $set);
while (my $line = <$fh>) {
  $line =~ s/\r?\n\z//;
  next if $line =~ /^\s*$/;
  if ($line =~ /^\$set\s+(\d+)\s*$/) { $set = $1; next; }
  next if $line =~ /^\$/;
  die "$in:$.: not a message line\n" unless $line =~ /^(\d+)(?: (.*))?\z/s;
  die "$in:$.: message outside a set\n" unless defined $set;
  die "$in:$.: number above 65535\n" if $1 > 65535;
  die "$in:$.: message $1 of set $set given twice\n" if exists $msgs{$set}{$1};
  $msgs{$set}{$1} = stored_form(unescape_source($2 // '', "$in:$."));
}
close $fh;

open my $o, '>:raw', $out or die "$out: $!\n";
if ($mode eq 'mc') {
  print $o "; Generated from $in; edit that file instead.\n";
  print $o "MessageIdTypedef=DWORD\n";
  print $o "LanguageNames=(English=0x0409:MSG00409)\n";
  print $o "FacilityNames=(" . join(' ', map { sprintf('Set%d=0x%x', $_, $_ | 0x800) } sort { $a <=> $b } keys %msgs) . ")\n\n";
  for my $s (sort { $a <=> $b } keys %msgs) {
    for my $n (sort { $a <=> $b } keys %{$msgs{$s}}) {
      print $o "MessageId=$n\nSeverity=Success\nFacility=Set$s\nLanguage=English\n$msgs{$s}{$n}\n.\n\n";
    }
  }
} else {
  print $o "\$ Generated from $in; edit that file instead.\n";
  for my $s (sort { $a <=> $b } keys %msgs) {
    print $o "\$set $s\n";
    for my $n (sort { $a <=> $b } keys %{$msgs{$s}}) {
      (my $t = $msgs{$s}{$n}) =~ s/\\/\\\\/g;
      print $o "$n $t\n";
    }
  }
}
close $o or die "$out: $!\n";
