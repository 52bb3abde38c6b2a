<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * Names, keys and values are bytes; a page shows text.
 */
final class Text
{
    private const CONTROLS = '\x00-\x08\x0b-\x1f\x7f';  // all but tab and line feed; a browser makes line feeds of CR
    private const UNSEEN = '/[' . self::CONTROLS . '\x{80}-\x{9f}]/u';
    private const LONGEST_IN_MESSAGE = 60;

    /**
     * Whether a field of a form sends the bytes back as it got them: UTF-8 without control characters.
     */
    public static function isText(string $bytes): bool
    {
        return preg_match(self::UNSEEN, $bytes) === 0;
    }

    /**
     * The bytes themselves where they are text, else with escapes, like those of INI text.
     */
    public static function shown(string $bytes): string
    {
        if (self::isText($bytes)) {
            return $bytes;
        }
        $isUtf8 = preg_match('//u', $bytes) === 1;
        $pattern = $isUtf8 ? '/[' . self::CONTROLS . '\x{80}-\x{9f}\n\t\\\\]/u' : '/[^\x20-\x5b\x5d-\x7e]/';
        return preg_replace_callback($pattern, static fn(array $match): string => match ($match[0]) {
            '\\' => '\\\\',
            "\n" => '\n',
            "\r" => '\r',
            "\t" => '\t',
            default => preg_replace('/../', '\\x$0', strtoupper(bin2hex($match[0]))),
        }, $bytes);
    }

    /**
     * As a message tells it: on one line, and not endless.
     */
    public static function quoted(string $bytes): string
    {
        $text = strtr(self::shown($bytes), ["\n" => '\n', "\t" => '\t']);
        return '‘' . self::cut($text, self::LONGEST_IN_MESSAGE) . '’';
    }

    /**
     * The text, or its beginning.
     */
    public static function cut(string $text, int $mostCharacters): string
    {
        return preg_match("/\A.{{$mostCharacters}}(?=.)/us", $text, $begin) === 1 ? "$begin[0]…" : $text;
    }

    /**
     * What a field of a form has sent, with the line feeds that its value has.
     *
     * @throws BadRequest
     */
    public static function sent(string $field): string
    {
        $text = strtr($field, ["\r\n" => "\n"]);
        if (!self::isText($text)) {
            throw new BadRequest('Nothing was changed: what was sent is no text. A form can set text only; set other ' .
                'bytes with korlo-settings.');
        }
        return $text;
    }
}
