<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * Reads settings as the server writes them where it does not write PHP arrays (docs/ini-format.md).
 */
final class IniText
{
    private const QUOTED = '"([^"\\\\]*+(?:\\\\.[^"\\\\]*+)*+)"';
    private const HEADER = '/\A\[(?|' . self::QUOTED . '|([^\]]*))\]\z/';
    private const PAIR = '/\A(?|' . self::QUOTED . '|([^=]+))=(?:' . self::QUOTED . '\z)?/';

    /**
     * @return array<array<string>> group => key => value
     */
    public static function parse(string $text): array
    {
        $settings = [];
        $group = null;
        foreach (explode("\n", $text) as $line) {
            if (preg_match(self::HEADER, $line, $match) === 1) {
                $group = self::unquoted($match[1], $line[1] === '"');
                $settings[$group] ??= [];
            } elseif ($group !== null && preg_match(self::PAIR, $line, $match) === 1) {
                $value = isset($match[2]) ? self::unquoted($match[2], true) : substr($line, strlen($match[0]));
                $settings[$group][self::unquoted($match[1], $line[0] === '"')] = $value;
            }
        }
        return $settings;
    }

    private static function unquoted(string $text, bool $isQuoted): string
    {
        if (!$isQuoted || !str_contains($text, '\\')) {
            return $text;
        }
        $unescape = static fn(array $match): string => $match[1] !== ''
            ? (string)hex2bin($match[1])
            : ['n' => "\n", 'r' => "\r", 't' => "\t"][$match[2]] ?? $match[2];
        return preg_replace_callback('/\\\\(?:x([0-9A-Fa-f]{2})|(.))/s', $unescape, $text);
    }
}
