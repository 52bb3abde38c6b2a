<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * The bytes of requests. Settings travel in the form of PHP's serialize(): it counts bytes, so that any byte survives.
 *
 * @internal
 */
final class Request
{
    /** The group that tells which change of this connection the server has refused. */
    public const REFUSED = 'KorloSettings/Trusted/Refused';

    /**
     * What a connection begins with.
     *
     * @param list<string> $subscriptions
     */
    public static function greeting(array $subscriptions): string
    {
        return "serialize phparray\n" . ($subscriptions === [] ? '' : self::subscribe($subscriptions));
    }

    /**
     * @param array<string> $names
     */
    public static function get(array $names): string
    {
        return "get delimited\n" . self::list($names);
    }

    /**
     * @param array<mixed> $changes
     */
    public static function merge(array $changes, bool $persist): string
    {
        return ($persist ? "merge\n" : "merge nopersist\n") . self::body($changes);
    }

    /**
     * @param array<mixed> $expected
     * @param array<mixed> $changes
     */
    public static function testAndMerge(array $expected, array $changes): string
    {
        return "test-and-merge\n" . self::body($expected) . self::body($changes);
    }

    /**
     * @param array<string> $names
     * @param array<mixed> $replacement
     */
    public static function overwrite(array $names, array $replacement): string
    {
        return "overwrite\n" . self::list($names) . self::body($replacement);
    }

    /**
     * @param array<string> $names
     */
    public static function restore(array $names): string
    {
        return "restore\n" . self::list($names);
    }

    /**
     * @param array<string> $names
     */
    public static function subscribe(array $names): string
    {
        return "subscribe\n" . self::list($names);
    }

    /**
     * Whether all these groups are among those that the names and patterns select.
     *
     * @param array<string> $names
     * @param array<array<string>> $settings
     */
    public static function selectsAll(array $names, array $settings): bool
    {
        $others = array_keys(array_diff_key($settings, array_flip($names)));
        if ($others === [] || in_array('*', $names, true)) {
            return true;
        }
        $toPattern = static fn(string $name): string => strtr(preg_quote($name, '/'), ['\*' => '.*']);
        $patterns = array_map($toPattern, array_filter($names, static fn(string $name) => str_contains($name, '*')));
        foreach ($others as $group) {
            $isSelected = static fn(string $pattern): bool => preg_match("/\A$pattern\z/s", (string)$group) !== 0;
            if (array_filter($patterns, $isSelected) === []) {
                return false;
            }
        }
        return true;
    }

    /**
     * One name or pattern a line, then a full stop.
     *
     * @param array<string> $names
     * @throws InvalidNameException
     */
    private static function list(array $names): string
    {
        $list = '';
        foreach ($names as $name) {
            if ($name === '.' || str_contains($name, "\n")) {
                throw new InvalidNameException(
                    "'$name' cannot be in a list of groups: " .
                    ($name === '.' ? 'a full stop alone ends the list' : 'it holds a line feed')
                );
            }
            $list .= "$name\n";
        }
        return "$list.\n";
    }

    /**
     * Like serialize(), but every key and value is a string, whatever it looks like.
     *
     * @param array<mixed> $settings
     */
    private static function body(array $settings): string
    {
        $body = 'a:' . count($settings) . ':{';
        foreach ($settings as $group => $values) {
            if (!is_array($values)) {
                $type = get_debug_type($values);
                throw new \TypeError("The group '$group' must be an array of keys and values, $type given");
            }
            $body .= self::text((string)$group) . 'a:' . count($values) . ':{';
            foreach ($values as $key => $value) {
                if (!is_string($value) && !is_int($value) && !is_float($value)) {
                    $type = get_debug_type($value);
                    throw new \TypeError("[$group]$key must be a string, an integer or a float, $type given");
                }
                $body .= self::text((string)$key) . self::text((string)$value);
            }
            $body .= '}';
        }
        return "$body}\n";
    }

    private static function text(string $text): string
    {
        return 's:' . strlen($text) . ":\"$text\";";
    }
}
